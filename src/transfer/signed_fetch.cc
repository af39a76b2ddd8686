#include "transfer/signed_fetch.h"

#include <optional>
#include <string_view>

#include "platform/file_ops.h"
#include "platform/log.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/signature_file.h"
#include "support/uri_join.h"
#include "transfer/download.h"
#include "transfer/update_ini_fetch.h"

namespace update {

namespace {

using ull = unsigned long long;

// The signature's check: "" when it passed, else the source's error.
std::string check_source(const std::string& uri, const std::string& description, CURL* handle,
                         const params_t& params, trust_t& trust) {
  std::string url = uri;
  uri_join(url, signature_file_name);
  std::string text, reason;
  // Fetched quietly: a signature that is not there is told as the check's
  // own refusal, not as the transfer's error.
  const text_fetch_t fetched = fetch_text(handle, url, params, signature_file_limit, description_time_ms(), text, reason);
  if (fetched == text_fetch_t::failed)
    return format_message("Signature check failed: cannot fetch %s: %s", signature_file_name, reason.c_str());
  std::optional<std::string_view> signature;
  if (fetched == text_fetch_t::fetched) signature = text;
  std::optional<uint64_t> highest;
  if (const auto known = trust.serials.find(uri); known != trust.serials.end()) highest = known->second;
  const signature_check_t check = check_signature(signature, description, trust.keys, packed_now(), highest);
  if (!check.ok) return format_message("Signature check failed: %s", check.reason.c_str());
  if (check.serial != highest) {
    serial_store_t serials = trust.serials;
    serials[uri] = check.serial;
    if (!save_accepted_serials(trust.serials_path, serials))
      return format_message("Failed to save accepted serials to file: %s", trust.serials_path.c_str());
    trust.serials = std::move(serials);
  }
  TLogMessage log(log_id_course);
  log.append_attr(log_attr_text, "signature")
      .append_attr(log_attr_text, format_message("%s: good signature by %s, serial %llu, expires %s", uri.c_str(),
                                                 check.key_name.c_str(), ull{check.serial},
                                                 expiry_text(check.expires).c_str()));
  return "";
}

}  // namespace

bool fetch_signed_update_ini(const std::string& uri, const std::string& update_path, const char* file_name,
                             CURL* handle, const params_t& params, trust_t& trust) {
  if (!trust.refusal.empty()) {
    report_error(format_message("Signature check failed: %s", trust.refusal.c_str()));
    return false;
  }
  // Fetched beside the saved description, which must stay as it is until
  // the new one has passed: start-up plans from it.
  const std::string unchecked_name = std::string(file_name) + ".unchecked";
  const std::string unchecked = update_path + unchecked_name, saved = update_path + file_name;
  std::string error, description;
  if (!fetch_update_ini(uri, update_path, unchecked_name.c_str(), handle, params)) {
    // Reported already.
  } else if (!read_whole_file(unchecked, description)) {
    error = format_message("Can't open file for reading: %s", unchecked.c_str());
  } else if ((error = check_source(uri, description, handle, params, trust)).empty()) {
    if (move_file(unchecked, saved)) return true;
    error = format_message("Failed to rename downloaded file to: %s", saved.c_str());
  }
  if (!error.empty()) report_error(error);
  platform::remove_file(unchecked.c_str());
  return false;
}

}  // namespace update
