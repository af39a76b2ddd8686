// The description loader's own facts, beside load_update_ini (update_ini.h).
#pragma once
#include <string>

namespace update {

// Where each source's update.ini is saved in the update directory, and what
// start-up reads when there is no status file.
inline constexpr const char* local_ini_name = "corvid_update.ini";

// The product section's name: productTarget(), obtained once for the process.
const std::string& product_section_name();

}  // namespace update
