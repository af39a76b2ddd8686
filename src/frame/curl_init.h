// How a run takes its libcurl handle. A seam so that a test can make the
// start of a run fail the way an exhausted libcurl would; production code
// never changes it.
#pragma once
#include <curl/curl.h>

namespace update {

using curl_init_fn_t = CURL* (*)();

// curl_easy_init unless a test swapped it. Read by the update worker only.
extern curl_init_fn_t run_curl_init;

}  // namespace update
