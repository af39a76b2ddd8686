// What a command reaches the module with: the sources file for a command
// given no URIs, and, for the daemon, code 8 of the bridge, whose bytes are
// a command line for the host.
#pragma once
#include <string>

#include "host/options.h"
#include "platform/command_bridge.h"

namespace host {

// The sources file options name: --sources, else the etc directory +
// "sources". REQUIRES: the agent's paths configured.
std::string sources_path(const options_t& options);

// Gives a command without URIs the sources of the file at path, read now.
// The unknown command and a command with URIs are left as they are. False,
// with error naming the file and the line, for a file that cannot be read,
// holds a line that is not a URI, or names no source.
bool take_sources(const std::string& path, options_t& options, std::string& error);

// Code 8 of a serving host: the bytes are a command and its URIs, split at
// spaces, which the host submits as its own daemon would. A command line
// that cannot be run, or a sources file that cannot be used, is refused with
// the reason in the reply and the log, and nothing is submitted; a command
// that is submitted is answered "started".
class host_commands_t : public CommandListener {
 public:
  explicit host_commands_t(std::string sources) : sources_(std::move(sources)) {}
  bool on_command(uint64_t client, uint32_t code, const std::string& request, std::string& reply) override;

 private:
  const std::string sources_;
};

}  // namespace host
