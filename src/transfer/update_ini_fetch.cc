// Placeholder until retrieval lands.
#include "transfer/update_ini_fetch.h"

namespace update {
bool fetch_update_ini(const std::string&, const std::string&, const char*, CURL*, const params_t&) { return false; }
std::string& uri_join(std::string& base, const std::string& name) { return base += "/" + name; }
}  // namespace update
