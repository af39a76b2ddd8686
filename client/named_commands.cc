#include "client/named_commands.h"

#include <ctime>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

// "install" is the client's manual installation (code 4), so the host's
// install has another name here.
constexpr named_command_t named_commands[] = {
    {"check", "check"},
    {"download", "download"},
    {"update", "install"},
    {"check-manual", "check-manual"},
    {"install-manual", "install-manual"},
};

}  // namespace

const named_command_t* find_named_command(const std::string& name) {
  for (const auto& command : named_commands)
    if (name == command.name) return &command;
  return nullptr;
}

std::string named_commands_help() {
  std::string text;
  for (const auto& command : named_commands) {
    std::string left = "  " + std::string(command.name) + " [URI...]";
    left.resize(28, ' ');
    text += left + "corvid-update " + command.host_command + " [URI...]\n";
  }
  return text;
}

bool host_command_line(const named_command_t& command, const std::vector<std::string>& uris,
                       const std::string& cmdid, std::string& line, std::string& error) {
  // Behind "--" nothing is taken for an option.
  line = "--cmdid " + cmdid + " -- " + command.host_command;
  for (const auto& uri : uris) {
    for (unsigned char c : uri)
      if (c <= ' ' || c == 0x7f) {
        error = "a URI with a blank or a control character cannot be sent: " + uri;
        return false;
      }
    line += " " + uri;
  }
  return true;
}

std::string new_command_id(const std::string& prefix) {
  return prefix + "-" + std::to_string(std::time(nullptr)) + "-" + std::to_string(::getpid());
}

bool unattended_command(const std::string& policy, std::string& name) {
  const std::pair<const char*, const char*> policies[] = {
      {"none", ""}, {"check", "check"}, {"download", "download"}, {"install", "update"}};
  for (const auto& [word, command] : policies)
    if (policy == word) {
      name = command;
      return true;
    }
  return false;
}

}  // namespace client
