// The module's state machine: one running command, one pending slot.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "facts/agent_facts.h"
#include "facts/stop_flag.h"
#include "platform/event_manager.h"
#include "records/request.h"

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

// The only way in: dispatches when idle, else replaces the pending request.
void submit_request(request_t* request);

// Event manager procedures.
void run_request(em_call_t* call);
void finish_init(em_call_t* call);
void status_timer_proc(em_call_t* call);
void arm_status_timer();

// Runs one command from start to end on the update worker.
void run_command(request_t& request);

// Puts every module-wide object back to its load-time values. Tests only.
void reset_module_for_tests();

}  // namespace update
