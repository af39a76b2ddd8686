// The commands the module runs.
#pragma once
#include <cstdint>

namespace update {

enum class Command : int32_t {
  check = 0,
  download = 1,
  install = 2,
  check_manual = 3,
  install_manual = 4,
  unknown = 5,
};

// "check", "download", "install", "check manual", "install manual",
// "unknown", and "UNDEFINED" for any other value.
const char* command_text(Command command);

}  // namespace update
