// What a host program does to provide the agent's services to the module:
// configure paths and product values, open the log, run the event manager.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace agent {

struct paths_t {
  std::string agent_tmp, agent_bin, agent_lib, agent_etc;
  std::string system_etc, system_log, system_var, system_var_etc, system_tmp;
  std::string product_version, product_build, product_target, product_os, product_cpu, product_vendor;
};

// Product values of an agent that was not told otherwise.
inline constexpr const char* default_product_version = "1.0";
inline constexpr const char* default_product_build = "0";
inline constexpr const char* default_product_target = "corvid";
inline constexpr const char* default_product_os = "linux";
inline constexpr const char* default_product_cpu = "x86_64";
inline constexpr const char* default_product_vendor = "corvid";

// Every directory below root, as the host's --root option lays them out:
// bin, lib, etc, tmp, log, var/ (with its separator) and var/etc; product
// values are the defaults. An empty root leaves every directory empty.
paths_t paths_under(const std::string& root);
// The per-user state directory, $XDG_STATE_HOME/corvid or
// ~/.local/state/corvid; empty when neither variable names an absolute
// directory, for there is no shared fallback.
std::string default_root();
// paths_under(default_root()): what an unconfigured agent uses. Its
// directories are empty when default_root() is.
paths_t default_paths();
// Replaces the values the path functions return. Safe from any thread.
void configure_paths(const paths_t& paths);
paths_t current_paths();

// Opens (appending) the log file, creating its directory; records before
// this go nowhere but to the observers. Returns false if the file cannot be
// opened: a link or anything but a regular file is not. The log holds URIs,
// commands and errors, so it is readable by its owner and its group at most
// (mode 0640): the group named, if one is (the socket's), and a directory
// made here is 0750 with that group. A line is "UTC time<TAB>id<TAB>
// attribute..." with backslash, tab, CR, LF and other control bytes of an
// attribute escaped.
bool open_log(const std::string& path, const std::string& group = "");
void close_log();
// Opens the open log's path anew, for a rotation that renamed the file: the
// records after it go to a new file of that name. False, with the old file
// kept, when it cannot be opened or no log is open. Safe from any thread.
bool reopen_log();
// What TLogMessage's destructor calls; safe from any thread.
void send_log_record(uint16_t id, const std::vector<std::string>& texts);
// Appends text to line with the escapes of a log line.
void append_escaped(std::string& line, const std::string& text);

// Observers see every record as it is sent: id and text attributes. They
// run on the sender's thread, outside the log's locks, possibly on several
// threads at once; removal waits for calls under way on other threads.
using log_observer_t = std::function<void(uint16_t id, const std::vector<std::string>& attrs)>;
int add_log_observer(log_observer_t observer);
void remove_log_observer(int handle);

// Starts and stops the event manager's worker thread. Stopping runs every
// queued call with its cancel field set, so that owners free their arguments,
// and waits for the thread.
void start_event_manager();
void stop_event_manager();
// Waits until the queue is empty and the worker is idle (armed timers do not
// count), or the manager is not running. For hosts and tests.
void drain_event_manager();
// The same with a limit; false if the limit passed first.
bool drain_event_manager_for(int milliseconds);

}  // namespace agent
