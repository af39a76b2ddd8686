#include "host/bridge_commands.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "frame/update.h"
#include "platform/agent_paths.h"
#include "platform/exposure.h"
#include "platform/log.h"
#include "records/bridge_codes.h"
#include "support/file_helpers.h"
#include "support/sources_file.h"

namespace host {

std::string sources_path(const options_t& options) {
  return options.sources.empty() ? agentEtcDir() + "/sources" : options.sources;
}

bool take_sources(const std::string& path, options_t& options, std::string& error) {
  if (!options.uris.empty() || options.command == update::Command::unknown) return true;
  // Whoever could change the file would choose what root fetches and runs.
  using namespace update::platform;
  const size_t slash = path.rfind('/');
  exposure_report_t report = directory_exposure(slash == std::string::npos ? "." : path.substr(0, slash + 1).c_str());
  if (report.kind == exposure_t::none) report = file_exposure(path.c_str());
  // One that is not there is told below, as a file that cannot be read.
  if (report.kind == exposure_t::foreign_owner || report.kind == exposure_t::others_write) {
    error = "refusing the sources file " + path + ": " + exposure_text(report);
    return false;
  }
  std::string text, reason;
  if (!update::read_whole_file(path, text)) {
    error = "cannot read the sources file " + path;
    return false;
  }
  if (!update::read_sources(text, options.uris, reason)) {
    error = "sources file " + path + ": " + reason;
    return false;
  }
  if (options.uris.empty()) error = "no source in the sources file " + path;
  return !options.uris.empty();
}

bool host_commands_t::on_command(uint64_t, uint32_t code, const std::string& request, std::string& reply) {
  if (code != update::code_host) return false;
  std::vector<std::string> words{"corvid-update"};
  for (size_t at = 0; at < request.size();) {
    const size_t end = std::min(request.find(' ', at), request.size());
    if (end > at) words.push_back(request.substr(at, end - at));
    at = end + 1;
  }
  std::vector<const char*> argv;
  for (const auto& w : words) argv.push_back(w.c_str());
  options_t options;
  std::string error;
  bool usable = parse_options(static_cast<int>(argv.size()), argv.data(), options, error);
  if (usable && options.action != action_t::run_command) {
    usable = false;
    error = "not a command that runs";
  }
  // A sources file the administrator got wrong is a failure; a client's
  // wrong command line only a notice.
  const bool sources_failed = usable && !take_sources(sources_, options, error);
  usable = usable && !sources_failed;
  {
    TLogMessage log(usable ? log_id_course : sources_failed ? log_id_failure : log_id_notice);
    log.append_attr(log_attr_text, "client command")
        .append_attr(log_attr_text, usable ? request : request + ": " + error);
  }
  reply += usable ? "started" : error;
  if (usable) update::process_async(options.command, options.uris, options.cmdid, 0, "", "", TLogIdent{});
  return usable;
}

}  // namespace host
