#include "records/request.h"

namespace update {

// params_t's own defaults are the fixed settings every fetch of update.ini
// runs with, whatever a description says.
request_t::request_t(Command command, const std::list<std::string>& uris) : command(command), uris(uris) {}

}  // namespace update
