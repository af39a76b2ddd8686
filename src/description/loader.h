// The description loader's own facts, beside load_update_ini (update_ini.h).
#pragma once
#include <string>

namespace update {

// Where each source's update.ini is saved in the update directory, and what
// start-up reads when there is no status file.
inline constexpr const char* local_ini_name = "corvid_update.ini";

// The product section's name: productTarget(), obtained once for the process.
const std::string& product_section_name();

// Why a description's file name cannot be used, or empty. The name keys the
// file's status entry, and a withdrawal deletes the update directory + name:
// it may neither leave the directory (absolute, or a ".." part) nor end in
// the name of one of the module's own files (the status file, the saved
// description, the serials, their companions, the lock, the log).
std::string refused_file_name(const std::string& name);
// Why a file may not be put at path (download_path + name, or download_file
// after substitution), or empty: anywhere but under one of those names.
std::string refused_local_path(const std::string& path);

}  // namespace update
