// Child processes of the service. A command line is split into words by the
// POSIX shell's quoting rules (blanks separate; '...' is literal; "..."
// keeps blanks and lets a backslash escape $ ` " \ and newline; a backslash
// outside quotes escapes the next character), without running a shell and
// without any expansion. The child starts in a new process group, with
// standard input, output and error on the null device, the default signal
// dispositions and an empty signal mask, and no descriptor of ours.
// Every operation is safe from any thread.
#pragma once
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace update::platform {

// The words of a command line; false for an unterminated quote or a
// backslash at the very end.
bool split_command_line(const std::string& command_line, std::vector<std::string>& words);

// A started child; a record that owns a process handle deletes its copies.
struct process_t {
  process_t() = default;
  process_t(const process_t&) = delete;
  process_t& operator=(const process_t&) = delete;
  long id = -1;
};

// Starts the command line, searching PATH for a name without a separator.
// Returns 0 on success, else the system's error code (EINVAL for a line
// without a word or with bad quoting); no child exists then.
int start_process(const std::string& command_line, process_t& process);

// How a waited child ended.
struct process_end_t {
  uint32_t exit_status = 0;  // valid when signal is 0
  int signal = 0;            // the signal that ended it, else 0
};

// The same for a client running a command for its user: the child leads a
// session of its own and keeps the caller's standard output and error.
int start_user_process(const std::string& command_line, process_t& process);

// Waits for the child without a limit of time and reaps it. False when the
// wait itself fails; end is then left as it was.
bool wait_process(process_t& process, process_end_t& end);

// Lets a started child go without waiting for it: a thread of its own reaps
// it. When no thread can be started, waits for the child here instead.
// Used when the caller does not wait.
void release_process(process_t& process);

// The system's text for an error code; empty when it has none.
std::string system_error_text(int code);

// The name of a signal ("SIGKILL"), or its number as text.
std::string signal_name(int signal);

// Test and fuzz seam: while set, start_process starts nothing and fails with
// ENOSYS. Production code never sets it.
std::atomic<bool>& refuse_process_start();
// While set, release_process finds no thread to spare.
std::atomic<bool>& refuse_thread_start();

}  // namespace update::platform
