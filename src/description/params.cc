#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string_view>

#include "platform/ascii_text.h"
#include "records/update_ini.h"
#include "status/status.h"
#include "support/ini_file.h"

namespace update {

namespace {

// The size rule of the settings: anything parse_size refuses is 0.
uint64_t size_or_zero(const std::string& text) {
  uint64_t value = 0;
  return parse_size(value, text) ? value : 0;
}

}  // namespace

bool parse_bool_text(const std::string& text) {
  for (std::string_view word : {"1", "on", "yes", "true"})
    if (equal_ignoring_case(text, word)) return true;
  return false;
}

int32_t parse_int_or(const std::string& text, int32_t fallback) {
  if (text.empty()) return fallback;
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(begin, &end, 10);
  if (end == begin || end != begin + text.size()) return fallback;
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

bool parse_size(uint64_t& out, const std::string& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(begin, &end, 10);
  // strtoull accepts a sign, so "-1" wraps: the top bit catches it, and an
  // overflow, which saturates to all ones.
  if (end != begin + text.size() || (value >> 63) != 0) {
    out = 0;
    return false;
  }
  out = value;
  return true;
}

void read_params(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini) {
  CIniFile::group_list_t sections;
  ini_file.groups_named(section_name, sections);
  auto value = [&](const char* key, const char* default_value) {
    return value_in_groups(sections, section_name, key, default_value);
  };

  ini.message = value("message", "");
  ini.silent = value("silent", ini.message.empty() ? "1" : "");
  ini.connect_timeout = parse_int_or(value("connect_timeout", ""), 60);
  ini.download_lowtime = parse_int_or(value("download_lowtime", ""), 10);
  ini.download_lowspeed = parse_int_or(value("download_lowspeed", ""), 10);
  ini.download_keepalive_interval = parse_int_or(value("download_keepalive_interval", ""), 30);
  ini.download_retry = parse_int_or(value("download_retry", ""), 0);
  ini.download_rollback_size = size_or_zero(value("download_rollback_size", ""));
  ini.download_fsync_size = size_or_zero(value("download_fsync_size", ""));
  ini.timeout = parse_int_or(value("timeout", ""), 0);
  ini.timeout = parse_int_or(value("message_timeout", ""), ini.timeout);
  // Only the value decides: the transfer sets the keepalive options anyway.
  if (ini.download_keepalive_interval != 0) report(1, "libcurl dosn't support CURLOPT_TCP_KEEPALIVE");
  ini.tcp_nodelay = value("tcp_nodelay", "");
}

}  // namespace update
