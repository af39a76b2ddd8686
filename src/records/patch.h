// A patch a description offers for one of its files: what turns the file an
// agent already holds into the new one, for fewer bytes on the wire.
#pragma once
#include <cstdint>
#include <string>

namespace update {

struct patch_t {
  std::string base_hash;  // decorated hash of the file it applies to
  std::string uri;        // where it is fetched from
  uint64_t size = 0;      // its size in bytes, never 0
  std::string hash;       // its own decorated hash
};

}  // namespace update
