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

// Every directory below root, as the host's --root option lays them out.
paths_t paths_under(const std::string& root);
// Replaces the values the path functions return. Safe from any thread.
void configure_paths(const paths_t& paths);
paths_t current_paths();

// Opens (appending) the log file; records before this go nowhere but to the
// observers. Returns false if the file cannot be opened.
bool open_log(const std::string& path);
void close_log();

// Observers see every record as it is sent: id and text attributes.
using log_observer_t = std::function<void(uint16_t id, const std::vector<std::string>& attrs)>;
int add_log_observer(log_observer_t observer);
void remove_log_observer(int handle);

// Starts and stops the event manager's worker thread. Stopping runs every
// queued call with its cancel field set, so that owners free their arguments,
// and waits for the thread.
void start_event_manager();
void stop_event_manager();
// Waits until the queue is empty and the worker is idle. For hosts and tests.
void drain_event_manager();

}  // namespace agent
