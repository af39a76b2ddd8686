// The description loader's own facts, beside load_update_ini (update_ini.h).
#pragma once
#include <string>

namespace update {

// The product section's name: productTarget(), obtained once for the process.
const std::string& product_section_name();

}  // namespace update
