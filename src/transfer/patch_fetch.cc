#include "transfer/patch_fetch.h"

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "facts/stop_flag.h"
#include "facts/versions.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "platform/mapped_file.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/patch_apply.h"
#include "transfer/body_hash.h"
#include "transfer/download.h"

namespace update {

namespace {

using file_ptr = std::unique_ptr<FILE, file_closer_t>;

bool hash_of(const file_entry_t& entry, const std::string& path, const std::string& type, std::string& hash) {
  set_checking_file(entry.name);
  const bool hashed = HashFileChecker::CalcHash(path, type, hash);
  set_checking_file("");
  return hashed;
}

// The patch whose base is the file at local_path. Null otherwise, with why
// empty when that file is already the one promised (a run that died after
// it took its place): the whole file's way takes it as it stands.
const patch_t* patch_for_base(const file_entry_t& entry, std::string& why) {
  uint64_t size = 0;
  if (!platform::query_file_size(entry.local_path.c_str(), size)) {
    why = "no file to patch: " + entry.local_path;
    return nullptr;
  }
  std::map<std::string, std::string> hashes;  // the file's hash by type, each made once
  {
    // The status vouches for the last whole download while the file has its
    // size, so that it is not read; a base changed behind its back makes a
    // result that fails its check. A file of the promised size may be the
    // promised file itself, placed by a run that died before it said so.
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    const file_status_t& f = status.file_entry(entry.name);
    if (!f.base_hash.empty() && f.base_size == size && size != entry.size)
      hashes.emplace(getHashTypeDecorStr(f.base_hash), f.base_hash);
  }
  auto hash_in = [&](const std::string& type) -> const std::string* {
    auto [known, fresh] = hashes.try_emplace(getHashTypeDecorStr(type));
    if (fresh && !hash_of(entry, entry.local_path, type, known->second)) {
      why = "cannot hash " + entry.local_path;
      return nullptr;
    }
    return &known->second;
  };
  if (size == entry.size) {
    const std::string* hash = hash_in(entry.hash);
    if (!hash || hash_equal(entry.hash, *hash)) return nullptr;
  }
  for (const patch_t& patch : entry.patches) {
    const std::string* hash = hash_in(patch.base_hash);
    if (!hash) return nullptr;
    if (hash_equal(patch.base_hash, *hash)) return &patch;
  }
  why = "no patch for the file at hand, whose hash is " + hashes.begin()->second;
  return nullptr;
}

// Whether the file at path has the expected hash: the one streamed made of
// it, or else the file read back. why tells a mismatch as WHAT and both.
bool verified(const file_entry_t& entry, body_hash_t& streamed, const std::string& path, const std::string& expected,
              const char* what, std::string& calculated, std::string& why) {
  if (!streamed.result(file_size(path), calculated) && !hash_of(entry, path, expected, calculated)) {
    why = "cannot hash " + path;
    return false;
  }
  if (hash_equal(expected, calculated)) return true;
  why = format_message("%s. Calculated: %s, from update server: %s", what, calculated.c_str(), expected.c_str());
  return false;
}

// The patch at path, whole and with its hash, resumed from what is there.
bool fetch_patch(CURL* handle, const file_entry_t& entry, const patch_t& patch, const std::string& path,
                 const params_t& params, std::string& why) {
  uint64_t have = 0;
  const bool present = platform::query_file_size(path.c_str(), have);
  if (present && have > patch.size) platform::remove_file(path.c_str());
  body_hash_t streamed(patch.hash, entry.name);
  // A whole patch is taken as it stands: a range at its end would be refused.
  if (!(present && have == patch.size) &&
      !download_file(handle, patch.uri, path, params, true, &streamed, file_limits(params, patch.size), &why))
    return false;
  std::string calculated;
  return verified(entry, streamed, path, patch.hash, "patch hash mismatch", calculated, why);
}

// The patch applied to the file at local_path, into path, which then holds
// the entry's file by its size and hash.
bool apply(const file_entry_t& entry, const std::string& patch_path, const std::string& path, std::string& calculated,
           std::string& why) {
  platform::mapped_file_t base, patch;
  for (auto [file, name] : {std::pair{&base, &entry.local_path}, std::pair{&patch, &patch_path}})
    if (!file->map(name->c_str())) {
      why = "cannot read " + *name;
      return false;
    }
  file_ptr out(fopen_utf8(path.c_str(), "wb", sizeof "wb"));
  if (!out) {
    why = "cannot write " + path;
    return false;
  }
  body_hash_t hash(entry.hash, entry.name);
  hash.begin(path, 0);
  const std::string error = apply_patch(base.data(), base.size(), patch.data(), patch.size(), entry.size,
                                        [&](const unsigned char* bytes, size_t count) {
                                          if (std::fwrite(bytes, 1, count, out.get()) != count) return false;
                                          hash.add(reinterpret_cast<const char*>(bytes), count);
                                          return true;
                                        });
  bool written = std::fflush(out.get()) == 0;
  // The disk takes the result while the hash catches up, so that the sync
  // after finds little to do.
  if (written) platform::start_writeback(out.get());
  written = std::fclose(out.release()) == 0 && written;
  hash.end();
  if (!error.empty()) {
    why = "patch does not apply: " + error;
    return false;
  }
  if (!written) {
    why = "cannot write " + path;
    return false;
  }
  return verified(entry, hash, path, entry.hash, "patched file does not match", calculated, why);
}

}  // namespace

bool fetch_by_patch(CURL* handle, const file_entry_t& entry, const std::string& version, const params_t& params,
                    std::string& calculated) {
  if (entry.patches.empty()) return false;
  const std::string temporary = download_name(entry.local_path, version),
                    patch_path = patch_name(entry.local_path, version),
                    patched = patched_name(entry.local_path, version);
  auto clean_up = [&] {
    platform::remove_file(patch_path.c_str());
    platform::remove_file(patched.c_str());
  };
  uint64_t have = 0;
  if (platform::query_file_size(temporary.c_str(), have) && have == entry.size) {
    clean_up();
    return false;
  }
  std::string why;
  const patch_t* patch = patch_for_base(entry, why);
  bool done = patch && fetch_patch(handle, entry, *patch, patch_path, params, why) &&
              apply(entry, patch_path, patched, calculated, why);
  if (done && !move_file(patched, temporary)) {
    done = false;
    why = "cannot rename " + patched + " to " + temporary;
  }
  if (done) {
    clean_up();
    report(4, format_message("[%s] patched from %s with %s", entry.name.c_str(), entry.local_path.c_str(),
                             patch->uri.c_str()));
    return true;
  }
  calculated.clear();
  // A stop keeps a partial patch for the next run.
  if (stop_requested()) return false;
  clean_up();
  if (!why.empty())
    report(1, format_message("[%s] patch not used, fetching the whole file: %s", entry.name.c_str(), why.c_str()));
  return false;
}

}  // namespace update
