#include "transfer/update_ini_fetch.h"

#include "platform/local_params.h"
#include "status/status.h"
#include "support/message_format.h"
#include "support/uri_join.h"
#include "transfer/download.h"

namespace update {

namespace {

// Far above any real description, which the loader reads whole into memory;
// a server cannot fill the disk with one.
constexpr uint64_t description_limit = uint64_t{16} << 20;

}  // namespace

uint64_t description_time_ms() { return uint64_t{LPARAMS::server::description_timeout()} * 1000; }

bool fetch_update_ini(const std::string& uri, const std::string& update_path, const char* file_name,
                      CURL* handle, const params_t& params) {
  if (uri.empty()) {
    report_error(format_message("%sDownload error: URI not specified (should be obtained from the Policy "
                                "Managment Server)", ""));
    return false;
  }
  const std::string local_path = update_path + (file_name ? file_name : "");
  std::string url = uri;
  uri_join(url, "update.ini");
  return download_file(handle, url, local_path, params, false, nullptr, {description_limit, description_time_ms()});
}

}  // namespace update
