// The command line of corvid-update.
#pragma once
#include <list>
#include <string>

#include "records/command.h"

namespace host {

enum class action_t { run_command, show_status, serve, help };

struct options_t {
  action_t action = action_t::help;
  update::Command command = update::Command::check;
  std::list<std::string> uris;
  bool xml = false;  // status --xml
  bool json = false;  // status --json
  std::string update_dir;
  std::string root;  // every agent directory below it; empty: the per-user default
  std::string log_file;  // empty: systemLogDir + "corvid_update.log"
  std::string cmdid;
  bool no_verify = false;
  std::string ca_file;  // HTTPS: the authorities to trust; empty: the system's
  std::string trusted_keys;  // the keys descriptions must be signed with; empty: the default directory
  unsigned description_timeout = 0;  // seconds, 1 to 86400; 0: the default
  bool stats = false;  // saves and disk syncs on stderr at the end
  std::string socket;  // serve: the bridge's socket; empty: the default
  std::string socket_group;  // serve: the group that may use the socket; empty: owner-only
  unsigned question_timeout = 0;  // serve: seconds a client may take to answer; 0: the bridge's default
  std::string sources;  // the sources file; empty: the etc directory + "sources"
  std::string machine_id_file;  // empty: /etc/machine-id
  std::string answer;  // the install question: "yes", "no", "ask" or empty (ask on a terminal, else yes)
  // Product values; empty ones keep the defaults.
  std::string product_version, product_build, product_target, product_os, product_cpu, product_vendor;
};

// Fills options from argv. False with a one-line reason in error for a
// command line that cannot be run.
bool parse_options(int argc, const char* const* argv, options_t& options, std::string& error);

// The --help text.
const char* usage_text();

}  // namespace host
