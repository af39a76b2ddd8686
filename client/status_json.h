// The status as one JSON object, for monitoring: what `status --json` of
// both programs prints. The README lists the fields.
#pragma once
#include <string>

#include "status/status.h"

namespace client {

// One line of JSON. Bytes that are not UTF-8 come out as U+FFFD.
// REQUIRES: status.lock held, when another thread may change the record.
std::string status_json(const update::status_t& status);

// Reads the status XML (bridge code 7) into status, result included. False
// for a text that is not a status document; status is then undefined.
bool status_from_xml(const std::string& xml, update::status_t& status);

}  // namespace client
