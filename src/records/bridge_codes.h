// The command codes of the module's listener on the agent's bridge, which
// its clients send: a manual installation (4), the binary status (6), the
// status XML (7) and bytes for the host (8).
#pragma once
#include <cstdint>

namespace update {

enum listener_code_t : uint32_t {
  code_install = 4,
  code_status = 6,
  code_status_xml = 7,
  code_host = 8,
};

}  // namespace update
