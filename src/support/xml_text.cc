#include "support/xml_text.h"

#include <algorithm>

#include "platform/ascii_text.h"

namespace update {

bool has_xml_forbidden_byte(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) { return xml_forbidden_byte(static_cast<unsigned char>(c)); });
}

std::string xml_forbidden_shown(std::string_view text) {
  std::string shown;
  for (const char c : text) {
    if (xml_forbidden_byte(static_cast<unsigned char>(c)))
      shown += "\\x" + hex_lower(std::string_view(&c, 1));
    else
      shown += c;
  }
  return shown;
}

}  // namespace update
