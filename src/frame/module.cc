// The module's state machine: intake, the worker, start-up's last step, stop.
#include "frame/module.h"

#include <cerrno>
#include <cstdint>

#include "frame/listener.h"
#include "frame/startup.h"
#include "frame/update.h"
#include "install/path_vars.h"
#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "platform/log.h"
#include "platform/process.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"

namespace update {

std::mutex module_lock;
module_state_t module_state = module_stopped;
std::unique_ptr<request_t> pending_request;

namespace {

callbacks_t host_callbacks{};

void clear_path_vars() {
  std::lock_guard<std::mutex> hold(path_vars_lock);
  path_vars.clear();
}

// Takes the pending request and moves the state to busy or idle, for the
// life that queued the call (a run, or start-up's last step). A stopped life
// stays stopped; a life that is over leaves the state and the "$" values to
// the init that began the next one.
void dispatch_pending(uint64_t life, bool after_run) {
  request_t* next = nullptr;
  bool stopped = false;
  {
    std::lock_guard<std::mutex> hold(module_lock);
    if (life != current_life()) return;
    stopped = life_over(life);
    if (!stopped) {
      next = pending_request.release();
      if (next) next->life = life;
      module_state = next ? module_busy : module_idle;
    }
  }
  // fini left the "$" values to the run it stopped, which could still have
  // substituted them into a command line; that run is over now.
  if (stopped && after_run) clear_path_vars();
  if (next) EM_AsyncCall(run_request, next);
}

// A run keeps to the directory its process locked at start-up; one that the
// parameters have moved since is refused rather than run unlocked.
bool keeps_to_locked_dir(const std::string& locked) {
  std::string configured;
  configured_update_dir(configured);
  if (configured == locked) return true;
  report(0, format_message("Update directory changed to %s: the module holds %s since its start; restart it to "
                           "use the new one",
                           configured.c_str(), locked.c_str()));
  return false;
}

}  // namespace

module_state_t current_module_state() {
  std::lock_guard<std::mutex> hold(module_lock);
  return module_state;
}

void submit_request(request_t* request) {
  std::unique_lock<std::mutex> hold(module_lock);
  if (module_state == module_idle) {
    request->life = current_life();
    module_state = module_busy;
    hold.unlock();
    EM_AsyncCall(run_request, request);
    return;
  }
  {
    TLogMessage log(log_id_course);
    log.append_attr(log_attr_text, "request pended")
        .append_attr(log_attr_text, module_state == module_busy ? "processing previous update request"
                                                                : "module UPDATE initializing");
  }
  // The module keeps only the latest wish: an older pending one just goes.
  pending_request.reset(request);
}

void run_request(em_call_t* call) {
  std::unique_ptr<request_t> request(static_cast<request_t*>(call->arg));
  if (call->cancel != 0) return;  // abandoned: the state stays busy
  const uint64_t life = request ? request->life : current_life();
  pin_life(life);
  // A run that had not begun when the module stopped goes like a pending one.
  if (request && !stop_requested()) {
    update_dir_path(request->update_path);
    const std::string locked = request->update_path;
    request->update_path += platform::path_separator;
    status.begin_run(request->command, request->cmdid);
    if (keeps_to_locked_dir(locked)) {
      agent_fs_mkdir_if_not_exist_rwx_usr(locked);
      run_command(*request);
    }
    status.end_run(request->command);
    request.reset();
  }
  pin_life(0);
  dispatch_pending(life, true);
}

void finish_init(em_call_t* call) {
  const uint64_t life = reinterpret_cast<uintptr_t>(call->arg);
  if (call->cancel != 0 || life_over(life)) return;  // stopped before it could open
  restore_status();
  dispatch_pending(life, false);
}

claim_t claim_update_dir(long& holder, std::string& reason) {
  std::string dir;
  configured_update_dir(dir);
  pin_update_dir(dir);
  agent_fs_mkdir_if_not_exist_rwx_usr(dir);
  if (platform::lock_directory(dir.c_str(), holder)) return claim_t::held;
  const int cause = errno;
  if (cause == EWOULDBLOCK) {
    reason = format_message("the update directory %s is in use by %s", dir.c_str(),
                            holder > 0 ? ("process " + std::to_string(holder)).c_str() : "another process");
    return claim_t::in_use;
  }
  reason = format_message("cannot lock the update directory %s: %s", dir.c_str(),
                          platform::system_error_text(cause).c_str());
  return claim_t::failed;
}

void fini() {
  bool running = false;
  {
    std::lock_guard<std::mutex> hold(module_lock);
    request_stop();
    running = module_state == module_busy;
    module_state = module_stopped;
    pending_request.reset();
  }
  EM_DelTimer(status_timer_proc);
  unregister_service_listener();
  // A run under way clears them when it ends (dispatch_pending).
  if (!running) clear_path_vars();
}

callbacks_t& callbacks() { return host_callbacks; }

void process_async(Command command, const std::list<std::string>& uris, const std::string& cmdid, unsigned short,
                   const std::string&, const std::string&, const TLogIdent&) {
  auto* request = new request_t(command, uris);
  request->cmdid = cmdid;
  submit_request(request);
}

void status_timer_proc(em_call_t* call) {
  if (call->cancel != 0) return;
  std::string cmdid;
  std::string xml;
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    if (status.xml.empty()) status.render_xml();
    cmdid = status.cmdid;
    xml = status.xml;
  }
  // Outside the lock: the host may call back into the module.
  host_callbacks.on_status(cmdid, xml);
}

void arm_status_timer() { EM_SetTimer(0, 1, status_timer_proc, nullptr); }

void reset_module_for_tests() {
  {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = module_stopped;
    pending_request.reset();
  }
  clear_stop_request();
  pin_update_dir("");
  status.reset();
  unregister_service_listener();
  clear_path_vars();
  host_callbacks = callbacks_t{};
}

}  // namespace update
