// Event manager of the agent: one worker thread that runs queued calls and
// timers. The module hands its run and start-up procedures to it.
#pragma once
#include <cstdint>

// The call record every procedure receives. Layout is fixed: the argument at
// offset 0, 8 bytes of the manager's own at offset 8, the cancel field at 16.
struct em_call_t {
  void* arg;
  void* reserved;
  int32_t cancel;  // non-zero: the call is abandoned, the procedure must do no work
};
static_assert(sizeof(void*) == 8, "call record layout assumes 64-bit pointers");

using em_proc_t = void (*)(em_call_t* call);

// Queues proc(arg) on the worker thread. Safe from any thread. Returns 0 when
// queued, non-zero when the manager is not running (the call is then made at
// once with cancel set, so that its owner can free the argument).
int EM_AsyncCall(em_proc_t proc, void* arg);

// Arms a timer: proc runs on the worker thread first after delay_seconds and
// then every period_seconds (0: once). One timer per procedure; a second call
// for the same procedure re-arms it. Safe from any thread.
int EM_SetTimer(int delay_seconds, int period_seconds, em_proc_t proc, void* arg);

// Removes the timer of proc, if any. Safe from any thread.
int EM_DelTimer(em_proc_t proc);
