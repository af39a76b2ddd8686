#include "runner/run_exec.h"

#include "facts/stop_flag.h"
#include "platform/process.h"
#include "status/status.h"
#include "support/message_format.h"

namespace update {

namespace {

void tell_failure(int32_t quiet, const std::string& text) {
  if (quiet == 0)
    report_error(text.c_str());
  else
    report_progress(text.c_str());
}

// One line in the log: a system text may hold line ends.
std::string one_line(std::string text) {
  for (char& c : text) {
    if (c == '\n') c = '\t';
    else if (c == '\r') c = ' ';
  }
  return text;
}

}  // namespace

bool stop_refuses(const std::string& what, int32_t quiet) {
  if (!stop_requested()) return false;
  tell_failure(quiet, format_message("The module is stopping, not started: %s", what.c_str()));
  return true;
}

bool run_exec(const std::string& command, bool wait, int32_t quiet) {
  if (stop_refuses(command, quiet)) return false;
  platform::process_t process;
  const int error = platform::start_process(command, process);
  if (error != 0) {
    const std::string text = one_line(platform::system_error_text(error));
    const unsigned code = static_cast<unsigned>(error);
    if (text.empty())
      tell_failure(quiet, format_message("exec() fail: %s, error: [0x%x]", command.c_str(), code));
    else
      tell_failure(quiet, format_message("exec() fail: %s, error: [0x%x] %s", command.c_str(), code, text.c_str()));
    return false;
  }
  if (!wait) {
    platform::release_process(process);
    report_progress(format_message("exec() no wait: %s", command.c_str()).c_str());
    return true;
  }
  report_progress(format_message("exec() waiting...: %s", command.c_str()).c_str());
  // A wait that fails reads as status 0, as an unreadable exit status would.
  platform::process_end_t end;
  platform::wait_process(process, end);
  if (end.signal != 0) {
    tell_failure(quiet, format_message("exec() exit: %s, signal: %d (%s)", command.c_str(), end.signal,
                                       platform::signal_name(end.signal).c_str()));
    return false;
  }
  if (end.exit_status != 0) {
    tell_failure(quiet, format_message("exec() exit: %s, status: %u", command.c_str(), end.exit_status));
    return false;
  }
  report_progress(format_message("exec() done: %s", command.c_str()).c_str());
  return true;
}

bool run_exec_list(const string_list_t& list, int32_t quiet) {
  for (const auto& command : list)
    if (!run_exec(command, quiet)) return false;
  return true;
}

}  // namespace update
