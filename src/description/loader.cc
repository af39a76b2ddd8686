// Placeholder until the description loader lands.
#include "description/update_ini.h"

namespace update {
bool parse_bool_text(const std::string&) { return false; }
int32_t parse_int_or(const std::string&, int32_t fallback) { return fallback; }
bool parse_size(uint64_t& out, const std::string&) { out = 0; return false; }
bool load_update_ini(update_ini_t&, const inivars_t&, hash_cache_t&, const std::string&, const char*, int) { return false; }
}  // namespace update
