#include "records/command.h"

namespace update {

const char* command_text(Command command) {
  switch (command) {
    case Command::check: return "check";
    case Command::download: return "download";
    case Command::install: return "install";
    case Command::check_manual: return "check manual";
    case Command::install_manual: return "install manual";
    case Command::unknown: return "unknown";
  }
  return "UNDEFINED";
}

}  // namespace update
