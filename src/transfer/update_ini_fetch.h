// Brings a source's description to the local disk.
#pragma once
#include <string>

#include <curl/curl.h>

#include "records/update_ini.h"

namespace update {

// The longest one attempt to fetch a description or its signature may
// take: the local parameter description_timeout, in milliseconds.
uint64_t description_time_ms();

// Called by the run driver for each source, on the update worker. Fetches
// uri's "update.ini" whole (no resume) to update_path + file_name; no
// separator is added, so update_path ends in one. The local copy is
// overwritten from its first byte. False when the URI is empty (the target
// is not touched and libcurl is not called) or the transfer failed (a
// description above 16 MiB fails it, so does one that takes longer than
// description_time_ms); the
// failure has been reported into the status's current message, which the
// caller selected.
bool fetch_update_ini(const std::string& uri, const std::string& update_path, const char* file_name,
                      CURL* handle, const params_t& params);

}  // namespace update
