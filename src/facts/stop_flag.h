// Whether the module was asked to stop. Everything that starts something
// (a transfer, a command, a question to the client) asks first.
//
// The module lives from init to fini, and each life has a number. A run
// belongs to the life it was submitted in and stays stopped once that life
// is over, even while a new init has begun the next one.
#pragma once
#include <cstdint>

namespace update {

// init: begins a new life, not stopped, and returns its number (from 1).
uint64_t begin_life();
// fini: stops the current life.
void request_stop();
// The current life's number; 0 before the first init.
uint64_t current_life();
// True when that life has been stopped, or a later one has begun.
bool life_over(uint64_t life);

// Makes stop_requested on the calling thread answer for one life (0: for
// whichever is current). The worker pins each run to its own.
void pin_life(uint64_t life);
// True once the pinned life (or the current one) has been stopped: from
// then on no command, question or transfer begins, and a run under way
// walks to its end. Safe from any thread.
bool stop_requested();

// Takes the stop of the current life back. Tests only.
void clear_stop_request();

}  // namespace update
