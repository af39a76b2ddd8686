#include "install/install.h"

#include <utility>
#include <vector>

#include "facts/stop_flag.h"
#include "install/notify.h"
#include "install/path_vars.h"
#include "runner/run_exec.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"

namespace update {

namespace {

constexpr int install_level = 5;

void set_path_var(const char* name, const std::string& value) {
  for (auto& var : path_vars)
    if (var.name == name) var.value = value;
}

// The first four "$" values follow the rule; the set keeps them afterwards.
void substitute_commands(file_rule_t& rule, const std::string& update_path, const update_ini_t& owner) {
  std::lock_guard<std::mutex> hold(path_vars_lock);
  set_path_var("$update_path", without_trailing_separators(update_path, 1));
  set_path_var("$download_path", without_trailing_separators(rule.download_path, 1));
  set_path_var("$current_version", rule.current_version);
  set_path_var("$update_uri", owner.uri);
  substitute_variables(rule.exec_sys, path_vars);
  substitute_variables(rule.exec_user, path_vars);
}

using states_t = std::vector<std::pair<std::string, file_state_t>>;

// The states of the rule's files, as begin_install is about to find them.
states_t states_of(const file_rule_t& rule) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  states_t states;
  if (rule.entries.empty()) states.emplace_back(rule.file_name, status.file_entry(rule.file_name).state);
  for (const auto& entry : rule.entries) states.emplace_back(entry.name, status.file_entry(entry.name).state);
  return states;
}

// A stop that comes before any of the rule's commands ran: the files go back
// to what they were, without an error of their own, and the next install
// takes them up; the source's message tells why nothing ran.
bool stopped_before_commands(const states_t& before) {
  if (!stop_requested()) return false;
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.current_rule = nullptr;
    for (const auto& [name, state] : before) status.file_entry(name).state = state;
    status.save_change();
  }
  return stop_refuses("installation", 0);
}

}  // namespace

void install_rule(file_rule_t& rule, Command command, const std::string& update_path) {
  const states_t before = states_of(rule);
  if (!status.begin_install(rule)) return;
  static const update_ini_t no_owner;
  const update_ini_t& owner = rule.owner ? *rule.owner : no_owner;

  if (!rule.exec_list.empty()) {
    if (stopped_before_commands(before)) return;
    report(install_level, format_message("%sExecuting ...", ""));
    if (!run_exec_list(rule.exec_list, 0)) return;
    status.end_install(rule);
    return;
  }
  if (rule.legacy_exec) substitute_commands(rule, update_path, owner);

  const bool silent = parse_bool_text(owner.silent);
  if (command != Command::install_manual && !silent) {
    report(install_level, format_message("Waiting... exec_sys: %s, exec_user: %s", rule.exec_sys.c_str(),
                                         rule.exec_user.c_str()));
    // A stop answers a pending question no; that is not the user's no.
    if (!notify_install(owner, rule, false) && !stop_requested()) {
      report(0, format_message("%sCanceled by user", ""));
      return;
    }
  }
  if (stopped_before_commands(before)) return;
  if (!rule.exec_sys.empty()) {
    report(install_level, format_message("Executing sys... %s", rule.exec_sys.c_str()));
    if (!run_exec(rule.exec_sys, parse_bool_text(rule.exec_sys_wait), 0)) return;
    report(install_level, format_message("Executing sys ok %s", rule.exec_sys.c_str()));
  }
  if (rule.exec_user.empty()) {
    status.end_install(rule);
    return;
  }
  report(install_level, format_message("Executing user... %s", rule.exec_user.c_str()));
  std::string text;
  if (notify_exec_user(rule.exec_user, parse_bool_text(rule.exec_user_wait), silent, text)) {
    report(install_level, format_message("Executing user ok %s", text.c_str()));
    status.end_install(rule);
    return;
  }
  report(0, format_message("Executing user failed: %s, error: %s", rule.exec_user.c_str(), text.c_str()));
}

}  // namespace update
