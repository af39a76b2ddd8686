// Case rules for the ASCII words the module compares (setting values, hash
// type names, version marks), and the hex it writes. The C library's own
// depend on the locale.
#pragma once
#include <string>
#include <string_view>

namespace update {

// True when a and b are equal once A-Z are taken as a-z; other bytes must
// match exactly.
inline bool equal_ignoring_case(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return true;
}

// Lower-case hex of bytes, two digits each.
inline std::string hex_lower(std::string_view bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(2 * bytes.size());
  for (unsigned char c : bytes) {
    hex += digits[c >> 4];
    hex += digits[c & 15];
  }
  return hex;
}

}  // namespace update
