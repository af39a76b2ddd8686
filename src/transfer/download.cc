// Placeholder until the download engine lands.
#include "transfer/download.h"

namespace update {
bool download_file(CURL*, const std::string&, const std::string&, const params_t&, bool) { return false; }
int xfer_progress_cb(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) { return 0; }
int legacy_progress_cb(void*, double, double, double, double) { return 0; }
}  // namespace update
