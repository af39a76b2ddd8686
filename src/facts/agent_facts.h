// What the module knows of the agent it runs in, as texts every stage uses.
#pragma once
#include <string>

namespace update {

// The log's name in the agent's log directory, where a host puts it.
inline constexpr const char* log_file_name = "corvid_update.log";

// The update directory without trailing separators; the configured one, or
// systemVarDir() + "update".
void update_dir_path(std::string& path);

// productVersion "." productBuild, and the four product values joined by ".".
const std::string& current_version_text();
const std::string& product_specs_text();

}  // namespace update
