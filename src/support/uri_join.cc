#include "support/uri_join.h"

namespace update {

std::string& uri_join(std::string& base, const std::string& name) {
  if (!base.empty() && base.back() == '/') return base += name;
  size_t q = base.rfind('?');
  if (q == std::string::npos) {
    base += '/';
    return base += name;
  }
  if (name.find('?') != std::string::npos) base.resize(q);
  const bool slash_before = q > 0 && base[q - 1] == '/';
  if (!slash_before && name.compare(0, 1, "/") != 0) base.insert(q++, 1, '/');
  return base.insert(q, name);
}

}  // namespace update
