// Starting a rule's commands as hidden children of the service. Serves
// exec_sys, the command lists of a rule, exec_before_download,
// exec_before_update and the apply_if.exec conditions.
#pragma once
#include <cstdint>
#include <string>

#include "records/update_ini.h"

namespace update {

// Starts command and, with wait, waits for it without a limit of time.
// True when it started and (if waited for) ended with status 0. A failure
// is told as an error of the run (report_error) when quiet is 0, else as a
// progress line only; the caller draws its own conclusion from the result.
// Once the module is asked to stop nothing starts: false, told so.
// A child ended by a signal is a failure that names the signal. Runs on the
// caller's thread and holds no lock while it waits.
bool run_exec(const std::string& command, bool wait, int32_t quiet);
inline bool run_exec(const std::string& command, int32_t quiet) { return run_exec(command, true, quiet); }

// Once the module is asked to stop, tells (as run_exec tells a failure)
// that what was not started and returns true; else false. Every command,
// question and order to the client passes here first.
bool stop_refuses(const std::string& what, int32_t quiet);

// Runs the commands in order, each waited for, up to the first that fails.
// True when all succeeded; an empty list gives true.
bool run_exec_list(const string_list_t& list, int32_t quiet);

}  // namespace update
