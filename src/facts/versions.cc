#include "facts/versions.h"

#include <string_view>

#include "platform/ascii_text.h"
#include "platform/log.h"
#include "support/file_helpers.h"
#include "support/ini_file.h"
#include "support/message_format.h"
#include "support/xml_text.h"

namespace update {

namespace {

std::string_view without_mark(std::string_view v) {
  if (!v.empty() && (v.front() == '!' || v.front() == '~')) v.remove_prefix(1);
  return v;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// The digits of the component at the front of v, if the component is a
// number: digits followed by the end or a ".". Empty otherwise.
std::string_view leading_number(std::string_view v) {
  size_t n = 0;
  while (n < v.size() && is_digit(v[n])) ++n;
  if (n == 0 || (n < v.size() && v[n] != '.')) return {};
  return v.substr(0, n);
}

// Numeric order of two digit strings of any length.
int compare_numbers(std::string_view a, std::string_view b) {
  while (a.size() > 1 && a.front() == '0') a.remove_prefix(1);
  while (b.size() > 1 && b.front() == '0') b.remove_prefix(1);
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return a.compare(b);
}

}  // namespace

bool version_equal(const std::string& a, const std::string& b) {
  if (a.empty() || b.empty()) return a.empty() && b.empty();
  return without_mark(a) == without_mark(b);
}

bool version_less(const std::string& a_text, const std::string& b_text) {
  std::string_view a = without_mark(a_text), b = without_mark(b_text);
  for (;;) {
    std::string_view na = leading_number(a), nb = leading_number(b);
    if (na.empty() || nb.empty()) break;
    if (int order = compare_numbers(na, nb)) return order < 0;
    a.remove_prefix(na.size() < a.size() ? na.size() + 1 : na.size());
    b.remove_prefix(nb.size() < b.size() ? nb.size() + 1 : nb.size());
  }
  // string_view compares bytes as unsigned, the end of text lowest.
  return a < b;
}

bool hash_equal(const std::string& a, const std::string& b) {
  const size_t colon_a = a.find(':'), colon_b = b.find(':');
  if (colon_a != std::string::npos && colon_a == colon_b) {
    const bool both_marked = (a[0] == '$' || a[0] == '#') && (b[0] == '$' || b[0] == '#');
    const size_t from = both_marked ? 1 : 0;
    if (a.compare(from, colon_a - from, b, from, colon_b - from) != 0) return false;
  }
  std::string_view value_a(a), value_b(b);
  if (colon_a != std::string::npos) value_a.remove_prefix(colon_a + 1);
  if (colon_b != std::string::npos) value_b.remove_prefix(colon_b + 1);
  return equal_ignoring_case(value_a, value_b);
}

void current_version_of(const std::string& dir, const std::string& name, std::string& version, bool warn) {
  const std::string path = dir + name + ".version";
  auto tell = [&](const char* what) {
    if (!warn) return;
    TLogMessage log(log_id_notice);
    log.append_attr(log_attr_text, format_message("[%s] current version %s: %s", name.c_str(), what, path.c_str()));
  };
  std::utf8_ifstream in(path);
  if (!in) return tell("undefined, can't open file for reading");
  version.clear();
  while (std::getline(in, version)) {
    trim_line(version);
    if (version.empty()) continue;
    if (!has_xml_forbidden_byte(version)) return;
    // The status file could not hold it: no version at all.
    version.clear();
    return tell("unusable in file");
  }
  version.clear();
  tell("not specified in file");
}

}  // namespace update
