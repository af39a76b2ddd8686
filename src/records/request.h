// One command on its way through the module. Owned by one holder at a time:
// the pending slot, a queued call, or the worker running it.
#pragma once
#include <cstdint>
#include <list>
#include <string>

#include "records/command.h"
#include "records/update_ini.h"

namespace update {

struct request_t {
  request_t(Command command, const std::list<std::string>& uris);

  Command command;
  std::string cmdid;
  std::string update_path;  // working directory with one trailing separator
  std::list<std::string> uris;
  params_t params;  // fixed defaults for fetching update.ini
  uint64_t life = 0;  // the module's life its run began in (facts/stop_flag.h)
};

}  // namespace update
