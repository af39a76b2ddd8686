// The status file: its path, the reader's stream seam, and what the writer
// and the reader share.
#pragma once
#include <istream>
#include <string>

namespace update {

struct status_t;

// The status file's name in the update directory.
inline constexpr const char* status_file_name = "corvid_update_status.xml";

// The update directory, the separator and status_file_name.
std::string status_file_path();

// The reading half of status_t::load, from an open stream; path only names
// the file in the log. REQUIRES: status lock held.
void read_status(status_t& status, std::istream& in, const std::string& path);

// The value of a file's type attribute for a file of the agent itself.
constexpr const char* agent_type_text = "agent";

}  // namespace update
