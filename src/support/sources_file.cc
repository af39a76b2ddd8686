#include "support/sources_file.h"

#include "platform/ascii_text.h"
#include "support/xml_text.h"

namespace update {

namespace {

bool blank(char c) { return c == ' ' || c == '\t'; }

// A scheme the transfers take, and something after it.
bool is_source_uri(std::string_view line) {
  for (std::string_view scheme : {"http://", "https://", "file://"})
    if (line.size() > scheme.size() && equal_ignoring_case(line.substr(0, scheme.size()), scheme)) return true;
  return false;
}

}  // namespace

bool read_sources(std::string_view text, std::list<std::string>& sources, std::string& reason) {
  unsigned number = 0;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    ++number;
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    while (!line.empty() && blank(line.front())) line.remove_prefix(1);
    while (!line.empty() && blank(line.back())) line.remove_suffix(1);
    if (line.empty() || line.front() == '#') continue;
    const std::string shown = xml_forbidden_shown(line);
    if (!is_source_uri(line)) {
      reason = "line " + std::to_string(number) + ": not an http, https or file URI: " + shown;
      return false;
    }
    for (char c : line)
      if (static_cast<unsigned char>(c) <= ' ' || c == '\x7f') {
        reason = "line " + std::to_string(number) + ": a blank or control character in the URI: " + shown;
        return false;
      }
    sources.emplace_back(line);
  }
  return true;
}

}  // namespace update
