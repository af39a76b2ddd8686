// init: takes the update directory and queues finish_init, which restores
// the status the last life of the service left behind and opens the module.
#include "frame/startup.h"

#include <chrono>
#include <cstdint>
#include <memory>

#include "description/inivars.h"
#include "description/loader.h"
#include "frame/listener.h"
#include "frame/module.h"
#include "frame/update.h"
#include "install/path_vars.h"
#include "planning/reconcile.h"
#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/log.h"
#include "records/update_ini.h"
#include "support/file_helpers.h"

namespace update {

namespace {

constexpr const char* loopback_host = "localhost";
constexpr const char* no_status_xml =
    "<update-status result=\"undefined\"><message>no update status</message></update-status>";

// From the availability marks on: shared by a loaded status and by a saved
// description that cannot be used.
// REQUIRES: status lock held.
void settle_status(status_t& status, const std::string& dir) {
  for (auto& file : status.files) file.available = true;
  const bool changed = status.verify_versions(dir);
  status.result = status.derive_result();
  // The file must learn what the disk says even while saves are off: this
  // save alone ignores save_enabled and leaves revision alone.
  if (changed) status.save();
  if (status.result == status_error) status.client_visible = true;
  status.log_files();
  status_reported = false;
}

// No status file: plan what can be planned from the saved description.
// REQUIRES: status lock held.
void start_without_status_file(status_t& status, const std::string& dir) {
  update_ini_t local_ini;
  local_ini.uri = loopback_host;
  status.messages.emplace_back();
  status.current_message = &status.messages.back();
  status.current_message->uri = loopback_host;
  // Errors of the load land in the loopback message but must not reach the
  // file: start-up has not decided anything yet.
  status.result = status_error;
  status.save_enabled = false;
  hash_cache_t hashes;
  inivars_t no_variables;
  const bool loaded = load_update_ini(local_ini, no_variables, hashes, dir, local_ini_name, 1);
  status.save_enabled = true;
  status.current_message = nullptr;
  if (loaded) {
    seed_status(status, local_ini, dir);
    status_reported = false;
    status.log_files();
    return;
  }
  const std::string path = dir + local_ini_name;
  std::unique_ptr<FILE, file_closer_t> saved(fopen_utf8(path.c_str(), "rb", sizeof "rb"));
  if (saved) {
    saved.reset();
    status.result = status_undefined;
    status.set_failure("No update status");
    settle_status(status, dir);
    return;
  }
  status.xml = no_status_xml;
  status.result = status_undefined;
}

}  // namespace

bool status_is_plausible(const status_t& status) {
  size_t with_error = 0;
  for (const auto& file : status.files) {
    const bool has_error = !file.error.empty();
    if (has_error) ++with_error;
    switch (file.state) {
      case file_uptodate:
      case file_downloaded:
      case file_installed:
        if (has_error) return false;
        break;
      case file_outofdate:
      case file_download:
      case file_install:
        // A stage that fails leaves its error; one that was cut off leaves none.
        if (!has_error) return false;
        break;
      default:
        return false;
    }
  }
  return with_error == 0 || !status.messages.empty();
}

void recover_loaded_status(status_t& status, const std::string& dir) {
  if (!status_is_plausible(status)) status.set_failure("Process was not correctly terminated");
  settle_status(status, dir);
}

void init() {
  {
    TLogMessage log(log_id_course);
    log.append_attr(log_attr_text, "start").append_attr(log_attr_text, "init");
  }
  uint64_t life = 0;
  {
    std::lock_guard<std::mutex> hold(module_lock);
    life = begin_life();
  }
  // Two processes on one status would overwrite each other's. Any other
  // failure to lock is told and start-up goes on: the saves then tell
  // whether the directory can be written.
  long holder = 0;
  std::string reason;
  const claim_t claim = claim_update_dir(holder, reason);
  if (claim != claim_t::held) {
    TLogMessage log(log_id_failure);
    log.append_attr(log_attr_text, "init").append_attr(log_attr_text, reason);
  }
  if (claim == claim_t::in_use) return;
  build_path_vars();
  register_service_listener();
  // The status is restored on the worker, behind a run of an earlier life
  // that may still be walking to its end.
  EM_AsyncCall(finish_init, reinterpret_cast<void*>(static_cast<uintptr_t>(life)));
}

void restore_status() {
  std::string dir;
  update_dir_path(dir);
  dir += platform::path_separator;
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch());
  status.revision = static_cast<uint64_t>(seconds.count()) << 32;
  if (status.load()) {
    recover_loaded_status(status, dir);
  } else {
    start_without_status_file(status, dir);
  }
  status.rehash();
  TLogMessage log(log_id_course);
  log.append_attr(log_attr_text, "done")
      .append_attr(log_attr_text, std::string("init, result: ") + status_code_text(status.result));
}

}  // namespace update
