#include "facts/stop_flag.h"

#include <atomic>

namespace update {

namespace {

// Set by fini, cleared by init. Apart from the state, which start-up's last
// step opens whatever it finds, so that a stop is never undone under a run.
std::atomic<bool> stop_asked{false};

}  // namespace

bool stop_requested() { return stop_asked.load(); }

void request_stop() { stop_asked = true; }

void clear_stop_request() { stop_asked = false; }

}  // namespace update
