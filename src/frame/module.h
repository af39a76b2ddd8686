// The module's state machine: one running command, one pending slot.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "records/request.h"
#include "platform/event_manager.h"

namespace update {

enum module_state_t : int32_t {
  module_stopped = 0,
  module_idle = 1,
  module_busy = 2,
};

extern std::mutex module_lock;
extern module_state_t module_state;                // guarded by module_lock
extern std::unique_ptr<request_t> pending_request;  // guarded by module_lock

// Reads the module state under module_lock.
module_state_t current_module_state();

// True once fini has stopped the module: from then on no command, question
// or transfer begins, and a run under way walks to its end. Safe from any
// thread.
bool stop_requested();
// Takes back an earlier stop: init calls it as it begins.
void clear_stop_request();

// The only way in: dispatches when idle, else replaces the pending request.
void submit_request(request_t* request);

// Event manager procedures.
void run_request(em_call_t* call);
void finish_init(em_call_t* call);
void status_timer_proc(em_call_t* call);
void arm_status_timer();

// The update directory without trailing separators; the configured one, or
// systemVarDir() + "update".
void update_dir_path(std::string& path);

// Runs one command from start to end on the update worker.
void run_command(request_t& request);

// productVersion "." productBuild, and the four product values joined by ".".
const std::string& current_version_text();
const std::string& product_specs_text();

// Puts every module-wide object back to its load-time values. Tests only.
void reset_module_for_tests();

}  // namespace update
