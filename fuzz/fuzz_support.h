// What the fuzz targets share: the check of a property, and the state the
// loader and ini targets share with their minimal services.
#pragma once
#include <cstdio>
#include <cstdlib>

namespace fuzz {
extern int reports;            // errors reported since the last reset
extern bool verify_downloads;  // the verification switch the reader sees

// A property that must hold for every input; a broken one is a finding.
inline void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "property broken: %s\n", what);
  std::abort();
}
}  // namespace fuzz
