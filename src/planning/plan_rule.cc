#include "planning/plan_rule.h"

#include "facts/agent_facts.h"
#include "facts/versions.h"
#include "platform/log.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/time_text.h"

namespace update {

namespace {

using ull = unsigned long long;

void notice(const std::string& text) { report(1, text); }

void course(const std::string& name, const std::string& text) {
  TLogMessage log(log_id_course);
  log.append_attr(log_attr_text, name).append_attr(log_attr_text, text);
}

const char* state_of(const file_status_t& f) { return file_state_text(f.state); }

void log_update_version_changed(const std::string& name, const std::string& now, const file_status_t& f) {
  notice(format_message("[%s] update version changed: %s, was: %s, state: %s", name.c_str(), now.c_str(),
                        f.update_version.c_str(), state_of(f)));
}

// What was fetched for an update that no longer stands goes. With
// keep_base, the last whole download stays for a patch to apply to, and
// when the status describes it (placed: it was downloaded whole, so it is
// the file at the entry's place), the status remembers it as the base.
void drop_download(file_status_t& f, const file_entry_t& entry, bool keep_base = false, bool placed = false) {
  if (!keep_base) {
    remove_download(entry.local_path, f.update_version);
    f.base_hash.clear();
    f.base_size = 0;
  } else {
    remove_partial_download(entry.local_path, f.update_version);
    if (placed && !f.download_hash.empty() && f.download_size != 0) {
      f.base_hash = f.download_hash;
      f.base_size = f.download_size;
    }
  }
  forget_download(f);
}

// The update is still needed. REQUIRES: status lock held.
void plan_needed(file_status_t& f, const file_entry_t& entry, const file_rule_t& rule) {
  const bool placed = f.state == file_uptodate || f.state == file_downloaded || f.state == file_install ||
                      f.state == file_installed;
  if (f.state == file_uptodate) f.state = file_outofdate;
  if (!f.update_version.empty() && f.update_version != rule.update_version) {
    log_update_version_changed(entry.name, rule.update_version, f);
    drop_download(f, entry, !entry.patches.empty(), placed);
    f.state = file_undecided;
  } else if (!f.download_hash.empty() && !entry.hash.empty() && !hash_equal(entry.hash, f.download_hash)) {
    notice(format_message("[%s] hash of downloaded file changed: %s, was: %s, state: %s, current version: %s, "
                          "update version: %s",
                          entry.name.c_str(), entry.hash.c_str(), f.download_hash.c_str(), state_of(f),
                          f.current_version.c_str(), f.update_version.c_str()));
    drop_download(f, entry, !entry.patches.empty(), placed);
    f.state = file_undecided;
  }
  f.update_version = rule.update_version;
  if (!f.uri.empty() && f.uri != entry.uri && f.state == file_download)
    notice(format_message("[%s] update URI changed: %s, was: %s", entry.name.c_str(), entry.uri.c_str(), f.uri.c_str()));
  if (entry.size != 0 && entry.size != f.total_size) {
    if (f.state == file_download)
      notice(format_message("[%s] file size changed: %llu, was: %llu", entry.name.c_str(), ull{entry.size},
                            ull{f.total_size}));
    f.total_size = entry.size;
  }
  f.error.clear();
  switch (f.state) {
    case file_downloaded:
    case file_installed:
      course(entry.name, " resume from state: " + status_line(f));
      break;
    case file_download:
      f.state = file_outofdate;
      course(entry.name, "previous download operation has not been completed, resume from state: " + status_line(f));
      break;
    case file_install:
      f.state = file_exists(entry.local_path) ? file_downloaded : file_outofdate;
      course(entry.name, "previous installation operation was not successful, resume from state: " + status_line(f));
      break;
    case file_undecided:
      f.state = file_outofdate;
      break;
    default:
      break;
  }
}

// The machine already has the update's version. REQUIRES: status lock held.
void plan_reached(file_status_t& f, const file_entry_t& entry, const file_rule_t& rule) {
  if (!f.update_version.empty() && f.update_version != rule.update_version) {
    log_update_version_changed(entry.name, rule.update_version, f);
    drop_download(f, entry);
  } else if (f.state != file_undecided && f.state != file_uptodate && f.state != file_installed) {
    notice(format_message("[%s] update not finished, state was: %s, current version: %s, update version: %s",
                          entry.name.c_str(), state_of(f), f.current_version.c_str(), f.update_version.c_str()));
    drop_download(f, entry);
  }
  f.update_version = rule.update_version;
  f.error.clear();
  if (f.state != file_uptodate) {
    f.state = file_uptodate;
    f.uptodate_time = now_text();
  }
}

// A rule that installs without a download: only the versions count.
void plan_without_entries(file_rule_t& rule, const std::string& dir) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  file_status_t& f = status.file_entry(rule.file_name);
  if (!f.skip_downloading) {
    report_error(format_message("internal error: skip_downloading, for file: %s, version: %s, state: %s",
                                rule.file_name.c_str(), f.current_version.c_str(), state_of(f)));
    return;
  }
  // Not emptied first: without a record the version read at load stands.
  current_version_of(dir, rule.file_name, rule.current_version, true);
  if (f.state != file_installed && !f.current_version.empty() && f.current_version != rule.current_version)
    notice(format_message("[%s] current version changed: %s, was: %s, state: %s", rule.file_name.c_str(),
                          rule.current_version.c_str(), f.current_version.c_str(), state_of(f)));
  if (f.state != file_uptodate && !f.update_version.empty() && f.update_version != rule.update_version)
    log_update_version_changed(rule.file_name, rule.update_version, f);
  f.current_version = rule.current_version;
  f.update_version = rule.update_version;
  f.error.clear();
  if (version_less(rule.current_version, rule.update_version)) {
    if (f.state != file_installed) f.state = file_outofdate;
  } else if (f.state != file_uptodate) {
    f.state = file_uptodate;
    f.uptodate_time = now_text();
  }
}

}  // namespace

void forget_download(file_status_t& entry) {
  entry.uri.clear();
  entry.download_hash.clear();
  entry.download_size = 0;
  entry.total_size = 0;
}

std::string status_line(const file_status_t& entry) {
  std::string line = file_state_text(entry.state);
  if (!entry.current_version.empty()) line += ", current version: " + entry.current_version;
  if (!entry.update_version.empty() && entry.update_version != entry.current_version)
    line += ", update version: " + entry.update_version;
  if (!entry.error.empty()) line += ", last error: " + entry.error;
  return line;
}

void plan_rule(file_rule_t& rule, const std::string& dir) {
  if (rule.entries.empty()) {
    plan_without_entries(rule, dir);
    return;
  }
  std::string current;
  if (rule.is_main) current = current_version_text();
  for (const auto& entry : rule.entries) {
    if (!rule.is_main) {
      current.clear();
      current_version_of(dir, entry.name, current, true);
    }
    rule.current_version = current;
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    file_status_t& f = status.file_entry(entry.name);
    // Somebody else changed the file; the comparison below deals with it.
    // An install is expected to.
    if (!f.current_version.empty() && f.current_version != current && f.state != file_installed)
      notice(format_message("[%s] current version changed: %s, was: %s, state: %s", entry.name.c_str(),
                            current.c_str(), f.current_version.c_str(), state_of(f)));
    f.current_version = current;
    if (version_less(current, rule.update_version))
      plan_needed(f, entry, rule);
    else
      plan_reached(f, entry, rule);
  }
}

}  // namespace update
