// What the status file's writer and its reader share.
#pragma once
#include <string>

namespace update {

// The update directory, the separator and "corvid_update_status.xml".
std::string status_file_path();

// The value of a file's type attribute for a file of the agent itself.
constexpr const char* agent_type_text = "agent";

}  // namespace update
