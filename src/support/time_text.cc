#include "support/time_text.h"

#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace update {

namespace {

constexpr uint64_t first_year = 1900;
constexpr uint64_t year_limit = 0x1000000;
// The calendar range every conversion to and from seconds accepts, the same
// on every system: 1970-01-01T00:00:00 to 3000-12-31T23:59:59 UTC.
constexpr int64_t last_second = 32535215999;
constexpr size_t text_buffer_size = 255;

bool seconds_in_range(int64_t seconds) { return seconds >= 0 && seconds <= last_second; }

packed_time_t pack(uint64_t year, unsigned month0, unsigned day, unsigned hour, unsigned minute, unsigned second) {
  return year << 40 | uint64_t{month0 & 0xFFu} << 32 | uint64_t{day & 0xFFu} << 24 | uint64_t{hour & 0xFFu} << 16 |
         uint64_t{minute & 0xFFu} << 8 | uint64_t{second & 0xFFu};
}

// False for bad_time and for a year below 1900.
bool unpack(packed_time_t t, std::tm& tm) {
  if (t == bad_time) return false;
  const uint64_t year = t >> 40;
  if (year < first_year) return false;
  tm = std::tm{};
  tm.tm_sec = static_cast<int>(t & 0xFF);
  tm.tm_min = static_cast<int>(t >> 8 & 0xFF);
  tm.tm_hour = static_cast<int>(t >> 16 & 0xFF);
  tm.tm_mday = static_cast<int>(t >> 24 & 0xFF);
  tm.tm_mon = static_cast<int>(t >> 32 & 0xFF);
  tm.tm_year = static_cast<int>(year - first_year);
  return true;
}

std::string format_tm(const char* format, const std::tm& tm) {
  char buffer[text_buffer_size];
  size_t n = std::strftime(buffer, sizeof buffer, format, &tm);
  return std::string(buffer, n);
}

// Seconds since 1970 of a broken-down UTC time; false outside the range.
bool utc_seconds(std::tm tm, int64_t& seconds) {
  errno = 0;
  time_t t = timegm(&tm);
  if (t == static_cast<time_t>(-1) && errno != 0) return false;
  seconds = static_cast<int64_t>(t);
  return seconds_in_range(seconds);
}

bool local_tm(int64_t seconds, std::tm& tm) {
  if (!seconds_in_range(seconds)) return false;
  const time_t t = static_cast<time_t>(seconds);
  return localtime_r(&t, &tm) != nullptr;
}

// One "%u" of the scan: optional blanks, an optional sign, digits. The value
// wraps as the C library's unsigned conversion does, without its undefined
// cases.
bool scan_unsigned(const char*& p, unsigned& value) {
  while (std::isspace(static_cast<unsigned char>(*p))) ++p;
  bool negative = false;
  if (*p == '+' || *p == '-') negative = *p++ == '-';
  if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
  uint64_t v = 0;
  bool saturated = false;
  for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
    unsigned d = static_cast<unsigned>(*p - '0');
    if (v > (UINT64_MAX - d) / 10) saturated = true;
    if (!saturated) v = v * 10 + d;
  }
  if (saturated) v = UINT64_MAX;
  if (negative) v = 0 - v;
  value = static_cast<unsigned>(v);
  return true;
}

}  // namespace

packed_time_t packed_now() {
  const time_t now = std::time(nullptr);
  std::tm tm{};
  if (now == static_cast<time_t>(-1) || !gmtime_r(&now, &tm)) return bad_time;
  const int64_t year = int64_t{tm.tm_year} + static_cast<int64_t>(first_year);
  if (year < static_cast<int64_t>(first_year) || year >= static_cast<int64_t>(year_limit)) return bad_time;
  return pack(static_cast<uint64_t>(year), static_cast<unsigned>(tm.tm_mon), static_cast<unsigned>(tm.tm_mday),
              static_cast<unsigned>(tm.tm_hour), static_cast<unsigned>(tm.tm_min), static_cast<unsigned>(tm.tm_sec));
}

packed_time_t parse_time(const std::string& text) {
  // "%u.%u.%u %u:%u:%u": year, month, day, hours, minutes, seconds. A blank
  // in the pattern matches any run of white space, none included.
  static const char separators[] = {'.', '.', ' ', ':', ':'};
  unsigned field[6];
  const char* p = text.c_str();
  for (int i = 0; i < 6; ++i) {
    if (i > 0) {
      const char sep = separators[i - 1];
      if (sep == ' ') {
        while (std::isspace(static_cast<unsigned char>(*p))) ++p;
      } else if (*p == sep) {
        ++p;
      } else {
        return bad_time;
      }
    }
    if (!scan_unsigned(p, field[i])) return bad_time;
  }
  const unsigned year = field[0], month = field[1], day = field[2];
  if (year < first_year || year >= year_limit || month < 1 || day < 1) return bad_time;
  return pack(year, month - 1, day, field[3], field[4], field[5]);
}

void time_text_iso(packed_time_t t, std::string& out) {
  std::tm tm;
  out = unpack(t, tm) ? format_tm("%Y-%m-%dT%H:%M:%S", tm) : "0000-00-00T00:00:00";
}

void time_text_gmt(packed_time_t t, std::string& out) {
  std::tm tm;
  out = unpack(t, tm) ? format_tm("%Y.%m.%d %H:%M:%S GMT", tm) : "0000.00.00 00:00:00";
}

void time_text_dmy_gmt(packed_time_t t, std::string& out) {
  std::tm tm;
  out += unpack(t, tm) ? format_tm("%d.%m.%Y %H:%M:%S GMT", tm) : "Error time";
}

void time_text_local(packed_time_t t, std::string& out) {
  std::tm tm;
  if (!unpack(t, tm)) {
    out += "Error time";
    return;
  }
  // The suffix tells how far the conversion got.
  int64_t seconds;
  if (!utc_seconds(tm, seconds)) {
    out += format_tm("%d.%m.%Y %H:%M:%S GMT", tm);
    return;
  }
  std::tm local;
  out += local_tm(seconds, local) ? format_tm("%d.%m.%Y %H:%M:%S", local) : format_tm("%d.%m.%Y %H:%M:%S UTC", tm);
}

int64_t packed_to_time(packed_time_t t) {
  std::tm tm;
  int64_t seconds;
  if (!unpack(t, tm) || !utc_seconds(tm, seconds)) return -1;
  return seconds;
}

packed_time_t packed_from_time(int64_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  std::tm tm{};
  if (!seconds_in_range(seconds) || !gmtime_r(&t, &tm)) return bad_time;
  return pack(static_cast<uint64_t>(tm.tm_year) + first_year, static_cast<unsigned>(tm.tm_mon),
              static_cast<unsigned>(tm.tm_mday), static_cast<unsigned>(tm.tm_hour), static_cast<unsigned>(tm.tm_min),
              static_cast<unsigned>(tm.tm_sec));
}

const char* time_local_text(int64_t seconds, char (&buffer)[32]) {
  std::tm tm;
  if (!local_tm(seconds, tm) || std::strftime(buffer, sizeof buffer, "%Y.%m.%d %H:%M:%S", &tm) == 0)
    std::strcpy(buffer, "0000.00.00 00:00:00");
  return buffer;
}

void time_ctime_text(int64_t seconds, std::string& out) {
  std::tm tm;
  char buffer[64];
  if (!local_tm(seconds, tm) || !asctime_r(&tm, buffer)) {
    out += "Bad time";
    return;
  }
  out.append(buffer, 24);
}

std::string now_text() {
  std::string text;
  time_text_iso(packed_now(), text);
  return text;
}

}  // namespace update
