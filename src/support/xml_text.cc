#include "support/xml_text.h"

#include <algorithm>

namespace update {

bool has_xml_forbidden_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return xml_forbidden_byte(static_cast<unsigned char>(c)); });
}

bool breaks_plain_value(std::string_view text) {
  return text.find_first_of("\"<&") != std::string_view::npos || has_xml_forbidden_byte(text);
}

std::string xml_forbidden_shown(std::string_view text) {
  static const char hex[] = "0123456789abcdef";
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (!xml_forbidden_byte(byte)) {
      shown += c;
      continue;
    }
    shown += "\\x";
    shown += hex[byte >> 4];
    shown += hex[byte & 15];
  }
  return shown;
}

}  // namespace update
