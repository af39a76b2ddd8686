// Placeholder until variables land.
#include "description/inivars.h"

namespace update {
const delimiters_t variable_delimiters{"$(", ")"};
bool inivars_t::apply(inivar_t&) { return true; }
void inivars_t::add(const std::string& name, const std::string& value) { vars.push_back({name, value}); }
std::string_view inivars_t::find(std::string_view) const { return {}; }
bool inivars_t::apply(std::string&, const delimiters_t&) { return false; }
}  // namespace update
