// Whether the module was asked to stop. Everything that starts something
// (a transfer, a command, a question to the client) asks first.
#pragma once

namespace update {

// True once fini has stopped the module: from then on no command, question
// or transfer begins, and a run under way walks to its end. Safe from any
// thread.
bool stop_requested();
// fini calls it; init takes it back with clear_stop_request as it begins.
void request_stop();
void clear_stop_request();

}  // namespace update
