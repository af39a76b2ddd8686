#include "facts/trust.h"

#include <filesystem>
#include <system_error>

#include "facts/agent_facts.h"
#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "support/file_helpers.h"
#include "support/message_format.h"

namespace update {

namespace {

// Absent only when the system says so: an error on the way (a directory
// that may not be searched) must not pass for no file.
bool absent(const std::string& path) {
  std::error_code failure;
  return !std::filesystem::exists(path, failure) && !failure;
}

}  // namespace

std::string trusted_keys_path(bool& named) {
  std::string dir = LPARAMS::server::trusted_keys_dir();
  named = !dir.empty();
  if (!named) dir = without_trailing_separators(agentEtcDir(), 1) + platform::path_separator_text + "update-keys";
  return dir;
}

bool load_trusted_keys(std::vector<trusted_key_t>& keys, std::string& error) {
  bool named = false;
  const std::string dir = trusted_keys_path(named);
  if (!named && absent(dir)) {
    keys.clear();
    return true;
  }
  // Whoever may change the keys decides what passes: the directory and each
  // key must be root's or this process's user's alone.
  error = directory_exposure_text(dir);
  std::error_code failure;
  for (std::filesystem::directory_iterator it(dir, failure), end; error.empty() && !failure && it != end;
       it.increment(failure))
    if (it->path().extension() == ".pub") error = file_exposure_text(it->path().string());
  return error.empty() && read_trusted_keys(dir, keys, error);
}

bool read_accepted_serials(const std::string& path, serial_store_t& serials, std::string& error) {
  if (absent(path)) {
    serials.clear();
    return true;
  }
  std::string text;
  if (!read_whole_file(path, text)) {
    error = format_message("%scannot read %s", "", path.c_str());
    return false;
  }
  std::string reason;
  if (!read_serial_store(text, serials, reason)) {
    error = format_message("%s%s is damaged: %s", "", path.c_str(), reason.c_str());
    return false;
  }
  return true;
}

bool save_accepted_serials(const std::string& path, const serial_store_t& serials) {
  // The directory is synced at once: the description whose serial this is
  // runs its commands in this same command, and a power loss must not bring
  // the older serial back.
  return write_file_atomically(path, {serial_store_text(serials)}) == atomic_write_t::done &&
         platform::sync_directory_of(path.c_str());
}

void read_trust(const std::string& update_path, trust_t& trust) {
  trust = trust_t{};
  trust.serials_path = update_path + serials_file_name;
  if (!load_trusted_keys(trust.keys, trust.refusal)) return;
  if (!trust.keys.empty()) read_accepted_serials(trust.serials_path, trust.serials, trust.refusal);
}

bool checks_signatures(const trust_t& trust) { return !trust.keys.empty() || !trust.refusal.empty(); }

}  // namespace update
