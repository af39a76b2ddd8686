// What the module knows of the agent it runs in, as texts every stage uses.
#pragma once
#include <string>

namespace update {

// The log's name in the agent's log directory, where a host puts it.
inline constexpr const char* log_file_name = "corvid_update.log";

// The update directory without trailing separators: the one this process
// took at start-up once pinned, else the configured one.
void update_dir_path(std::string& path);
// The one configured now: the local parameter, or systemVarDir() + "update".
void configured_update_dir(std::string& path);
// Fixes what update_dir_path answers (the directory the process locked); an
// empty dir unfixes it. Safe from any thread.
void pin_update_dir(const std::string& dir);

// Why someone besides root and this process's user could change the
// directory at path, naming the directory on the way that lets them; empty
// when no one could. A directory still to be made is judged by those that
// would hold it. Root's daemon keeps its status, serials and keys in such
// directories only.
std::string directory_exposure_text(const std::string& path);
// The same for one file by itself.
std::string file_exposure_text(const std::string& path);

// productVersion "." productBuild, and the four product values joined by ".".
const std::string& current_version_text();
const std::string& product_specs_text();

}  // namespace update
