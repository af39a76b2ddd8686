// Placeholder until status reporting lands.
#include "frame/update.h"

namespace update {
void get_status(std::string&, std::string&, bool) {}
void get_status_xml(std::string&) {}
}  // namespace update
