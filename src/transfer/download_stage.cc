#include "transfer/download_stage.h"

#include "facts/versions.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "runner/run_exec.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "transfer/body_hash.h"
#include "transfer/download.h"
#include "transfer/patch_fetch.h"

namespace update {

namespace {

// Moves the entry's file into state 3 and makes it current. False when it
// has nothing to fetch.
bool begin_download(const file_entry_t& entry) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  file_status_t& f = status.file_entry(entry.name);
  if ((f.state != file_outofdate && f.state != file_download) || f.skipped || !f.available) return false;
  f.state = file_download;
  f.download_size = 0;
  if (entry.size != 0) f.total_size = entry.size;
  f.download_hash = entry.hash;
  f.uri = entry.uri;
  status.current_file = &f;
  status.save_change();
  return true;
}

// True when local_path already holds the file the rule promises, by its size
// and its hash.
bool holds_promised_file(const file_entry_t& entry) {
  if (entry.size == 0 || entry.hash.empty() || file_size(entry.local_path) != entry.size) return false;
  std::string calculated;
  return HashFileChecker::CalcHash(entry.local_path, entry.hash, calculated) && hash_equal(entry.hash, calculated);
}

// Hashes path in the type the entry asks for; the status tells meanwhile
// that a long hash runs.
bool hash_file(const file_entry_t& entry, const std::string& path, std::string& calculated) {
  set_checking_file(entry.name);
  const bool hashed = HashFileChecker::CalcHash(path, entry.hash, calculated);
  set_checking_file("");
  return hashed;
}

// A server answers a range at the end of a file with an error, so a
// temporary file that is already whole (the process died before the move,
// or the move failed) is taken as it stands; one that is larger than the
// file can be is fetched anew from its first byte. Without a size, only the
// hash tells a whole file from a partial one, which costs a read of the
// partial file; calculated then holds the hash of the file taken. A process
// that died after the move and before the status said "downloaded" left no
// temporary file but the whole one at its final name: it goes back and
// counts as whole.
bool fetch(CURL* handle, const file_entry_t& entry, const std::string& temporary, const params_t& params,
           body_hash_t& streamed, std::string& calculated) {
  uint64_t have = 0;
  if (!platform::query_file_size(temporary.c_str(), have) && holds_promised_file(entry))
    move_file(entry.local_path, temporary);
  const bool present = platform::query_file_size(temporary.c_str(), have);
  bool whole = false;
  if (entry.size != 0 && present) {
    whole = have == entry.size;
    if (have > entry.size) platform::remove_file(temporary.c_str());
  } else if (present && have != 0 && !entry.hash.empty()) {
    whole = hash_file(entry, temporary, calculated) && hash_equal(entry.hash, calculated);
    if (!whole) calculated.clear();
  }
  if (whole) {
    report(4, format_message("Download already complete: %s -> %s", entry.uri.c_str(), temporary.c_str()));
    return true;
  }
  return download_file(handle, entry.uri, temporary, params, true, &streamed, file_limits(params, entry.size));
}

// The hash of what fetch left under the temporary name: the one made while
// it was written, or, for a file taken as it stood or one whose writes the
// hash could not follow, the file read back.
bool hash_fetched(const file_entry_t& entry, const std::string& temporary, body_hash_t& streamed,
                  std::string& calculated) {
  uint64_t size = 0;
  if (platform::query_file_size(temporary.c_str(), size) && streamed.result(size, calculated)) return true;
  // The disk writes it meanwhile, so that the sync after finds little to do.
  platform::start_writeback(temporary.c_str());
  return hash_file(entry, temporary, calculated);
}

}  // namespace

void download_rule(file_rule_t& rule, CURL* handle) {
  // The readers give every rule with entries its owner; a rule put together
  // elsewhere fetches with the settings a source without a description has.
  static const params_t no_owner;
  const params_t& params = rule.owner ? *rule.owner : no_owner;
  bool before_download_done = rule.exec_before_download.empty();
  for (auto& entry : rule.entries) {
    if (!begin_download(entry)) {
      entry.ready = true;
      continue;
    }
    if (!before_download_done) {
      if (!run_exec_list(rule.exec_before_download, 0)) return;
      before_download_done = true;
    }
    const std::string temporary = download_name(entry.local_path, rule.update_version);
    body_hash_t streamed(entry.hash, entry.name);
    std::string calculated;
    if (!fetch_by_patch(handle, entry, rule.update_version, params, calculated) &&
        !fetch(handle, entry, temporary, params, streamed, calculated))
      return;
    // Hashed under its temporary name, so that a process that dies while a
    // large file is read back leaves a whole temporary file for the next run
    // to take without a request. The status may say "downloaded" only once
    // the data would survive a power loss.
    if (calculated.empty() && !hash_fetched(entry, temporary, streamed, calculated)) {
      report_error(format_message("Failed to calculate hash for file: %s", temporary.c_str()));
      return;
    }
    // Verified before it takes its final name, which may lie outside the
    // update directory: bytes the description does not promise never replace
    // what is there. They go, so that the next run fetches anew, and the
    // entry keeps the promised hash, so that planning finds nothing
    // downloaded to drop.
    if (!entry.hash.empty() && !hash_equal(entry.hash, calculated)) {
      platform::remove_file(temporary.c_str());
      {
        std::lock_guard<std::recursive_mutex> hold(status.lock);
        status.file_entry(entry.name).download_size = 0;
      }
      report(0, format_message("[%s] Hash mismatch. Calculated: %s, from update server: %s", entry.name.c_str(),
                               calculated.c_str(), entry.hash.c_str()));
      return;
    }
    if (!platform::sync_path(temporary.c_str())) {
      report_error(format_message("Failed to write downloaded file to disk: %s", temporary.c_str()));
      return;
    }
    if (!move_file(temporary, entry.local_path)) {
      report_error(format_message("Failed to rename downloaded file to: %s", entry.local_path.c_str()));
      return;
    }
    const uint64_t size = file_size(entry.local_path);
    if (size == 0) report(1, format_message("Empty file: %s", entry.local_path.c_str()));
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      file_status_t& f = status.file_entry(entry.name);
      f.state = file_downloaded;
      f.download_size = size;
      f.total_size = size;
      f.download_hash = calculated;
      f.base_hash.clear();
      f.base_size = 0;
      status.save_change();
    }
    entry.ready = true;
  }
}

}  // namespace update
