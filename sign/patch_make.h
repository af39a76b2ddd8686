// The maker of binary patches in the format support/patch_apply.h reads:
// the publisher's side, linked by corvid-update-sign and the benchmarks.
#pragma once
#include <cstdint>
#include <string>

namespace update {

// Makes a patch that turns the base into the result, into patch. False with
// why in error: a base of 2 GiB or more, or a compressor that fails. Takes
// about eight times the base's size in memory, and about a second for a
// base of 5 MB.
bool make_patch(const unsigned char* base, uint64_t base_size, const unsigned char* result, uint64_t result_size,
                std::string& patch, std::string& error);

// The same for two files, written to patch_path (replaced).
bool make_patch_file(const std::string& base_path, const std::string& result_path, const std::string& patch_path,
                     std::string& error);

}  // namespace update
