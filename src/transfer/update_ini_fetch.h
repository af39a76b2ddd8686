// Brings a source's description to the local disk.
#pragma once
#include <string>

#include <curl/curl.h>

#include "description/update_ini.h"

namespace update {

// Fetches uri's "update.ini" to update_path + file_name (update_path ends in
// a separator). False when the URI is empty or the transfer failed; the
// failure has been reported into the current message.
bool fetch_update_ini(const std::string& uri, const std::string& update_path, const char* file_name,
                      CURL* handle, const params_t& params);

// Adds a file name to a URI in place, keeping a query at the end; returns base.
std::string& uri_join(std::string& base, const std::string& name);

}  // namespace update
