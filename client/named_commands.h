// The host's commands as the client names them. The client sends a named
// command as a code 8 command line and follows the run it starts, which it
// knows by the command id it gives.
#pragma once
#include <string>
#include <vector>

namespace client {

struct named_command_t {
  const char* name;          // the client's
  const char* host_command;  // corvid-update's
};

// The command of that name, or null.
const named_command_t* find_named_command(const std::string& name);

// The lines of --help that map the names to the host's commands.
std::string named_commands_help();

// The code 8 bytes: "--cmdid ID -- COMMAND URI...". False, with error, for a
// URI that holds a blank or a control character, which the line cannot
// carry.
bool host_command_line(const named_command_t& command, const std::vector<std::string>& uris,
                       const std::string& cmdid, std::string& line, std::string& error);

// A command id of its own for each run: prefix, the time and the process.
std::string new_command_id(const std::string& prefix);

// The named command an unattended run makes of a policy: "" for "none".
// False for a policy that is not one of none, check, download, install.
bool unattended_command(const std::string& policy, std::string& name);

}  // namespace client
