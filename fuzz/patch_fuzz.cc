// Fuzz target for binary patches, which a hostile server may shape at will.
// An input is a mode byte, two bytes of base length, the base, and the rest:
//  - even mode: the rest is a patch, applied to the base for the result size
//    its header gives (at most 1 MiB). Nothing may read outside the two
//    buffers (the sanitizers' part), the sink never gets more than the
//    result's size, and a success gives exactly that size;
//  - odd mode: the rest is a new file; the maker's patch from the base must
//    apply to it and give the new file back, byte for byte.
// The seeds (fuzz/corpus_patch) are the maker's patches of small pairs.
#include <cstdint>
#include <string>

#include "fuzz/fuzz_support.h"
#include "sign/patch_make.h"
#include "support/patch_apply.h"

namespace {

using fuzz::check;

std::string applied(const unsigned char* base, size_t base_size, const unsigned char* patch, size_t patch_size,
                    uint64_t result_size, std::string& result) {
  return update::apply_patch(base, base_size, patch, patch_size, result_size,
                             [&](const unsigned char* bytes, size_t count) {
                               check(result.size() + count <= result_size, "no more than the result's size");
                               result.append(reinterpret_cast<const char*>(bytes), count);
                               return true;
                             });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const size_t base_size = std::min<size_t>(size - 3, data[1] | data[2] << 8);
  const unsigned char *base = data + 3, *rest = base + base_size;
  const size_t rest_size = size - 3 - base_size;
  std::string result, error;
  if (data[0] % 2 == 0) {
    update::patch_header_t header;
    uint64_t result_size = 64;
    if (update::read_patch_header(rest, rest_size, header, error) && header.result_size <= (1u << 20))
      result_size = header.result_size;
    if (applied(base, base_size, rest, rest_size, result_size, result).empty())
      check(result.size() == result_size, "a patch that applies gives the whole result");
    return 0;
  }
  std::string patch;
  check(update::make_patch(base, base_size, rest, rest_size, patch, error), "the maker makes a patch");
  check(applied(base, base_size, reinterpret_cast<const unsigned char*>(patch.data()), patch.size(), rest_size, result)
                .empty() &&
            result == std::string(reinterpret_cast<const char*>(rest), rest_size),
        "the maker's patch gives the new file back");
  return 0;
}
