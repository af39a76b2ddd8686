// The start-up work of init that restores and classifies the status left by
// the last life of the service.
#pragma once
#include <string>

#include "status/status.h"

namespace update {

// Whether the loaded status reads like a run that ended (every file in a
// resting state without error, or in a transitional state with one) rather
// than one that was cut off. REQUIRES: status lock held.
bool status_is_plausible(const status_t& status);

// The path with a status file: the plausibility verdict, availability,
// versions, the derived result and its one save, the log of the files.
// dir is the update directory with its trailing separator.
// REQUIRES: status lock held.
void recover_loaded_status(status_t& status, const std::string& dir);

// Start-up's work on the status, on the worker: reads the status file back
// (or plans from the saved description without one), classifies it, and
// logs the result. Takes the status lock.
void restore_status();

}  // namespace update
