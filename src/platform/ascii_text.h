// Case rules for the ASCII words the module compares (setting values, hash
// type names, version marks). The C library's own depend on the locale.
#pragma once
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

}  // namespace update
