// The one libcurl transfer of the module: one URL into one local file, with
// resume, rollback, retries, periodic flushes and progress into the status.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include <curl/curl.h>

#include "description/update_ini.h"

namespace update {

// Handed to the progress callbacks when download_fsync_size is not 0.
struct flush_context_t {
  FILE* file = nullptr;
  uint64_t last_flushed = 0;
  uint64_t flush_interval = 0;
};

// Runs on the update worker and returns when the file is complete (true),
// or when the attempts are used up or the module was stopped (false, already
// reported). Never deletes the target. The handle is reset afterwards.
bool download_file(CURL* handle, const std::string& url, const std::string& path,
                   const params_t& params, bool resume);

// libcurl progress callbacks; both are always set. 0 goes on, 1 aborts.
int xfer_progress_cb(void* context, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);
int legacy_progress_cb(void* context, double dltotal, double dlnow, double ultotal, double ulnow);

}  // namespace update
