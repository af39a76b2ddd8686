// Binary patches: what turns one version of a file (the base) into the next
// (the result), as three compressed streams of instructions and bytes.
// Knows nothing of updates; the maker lives with the publisher's program.
//
// A patch is, all numbers unsigned and little-endian:
//
//   offset  size  field
//   0       8     magic, the bytes "CRVPAT01"
//   8       8     base size: the size of the file the patch applies to
//   16      8     result size: the size of the file it makes
//   24      8     control length: bytes of the control stream
//   32      8     diff length: bytes of the diff stream
//   40      8     extra length: bytes of the extra stream
//   48            the control, diff and extra streams, in this order, each
//                 one .xz stream (as xz(1) writes it; one stream, no padding)
//
// and its size is exactly 48 plus the three lengths. Decompressed, the
// control stream is a series of records of three numbers, each in LEB128
// (seven bits a byte, low first, at most ten bytes): seek, copy, add. With a
// position in the base starting at 0, a record moves the position by seek
// (zigzag-coded: 2n for n, 2n-1 for -n), then appends copy bytes, each the
// base's byte at the position plus the next byte of the diff stream (modulo
// 256), moving the position on by copy, then appends the next add bytes of
// the extra stream. No record has copy and add both 0, the position never
// leaves the base, and the records end exactly when the result is whole,
// as do the diff and extra streams.
#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace update {

constexpr size_t patch_header_size = 48;
// What one stream's decoder may ask for (an xz(1) stream of its strongest
// preset needs 65 MiB). It touches only as much as the stream yields, which
// the result's size bounds.
constexpr uint64_t patch_stream_memory = uint64_t{72} << 20;

struct patch_header_t {
  uint64_t base_size = 0;
  uint64_t result_size = 0;
  uint64_t control_length = 0;
  uint64_t diff_length = 0;
  uint64_t extra_length = 0;
};

// Reads the header of a patch of size bytes; false with why in error when
// it is not one, or when its lengths do not add up to size.
bool read_patch_header(const unsigned char* patch, uint64_t size, patch_header_t& header, std::string& error);

// The header's 48 bytes, as read_patch_header reads them.
std::string write_patch_header(const patch_header_t& header);

// Takes the result in order, piece by piece; false ends the application.
using patch_sink_t = std::function<bool(const unsigned char* bytes, size_t count)>;

// Applies the patch to the base and hands the result to sink; "" when the
// result is whole, else why not (the sink may have taken part of it). A
// patch must be made for a base of exactly base_size bytes and a result of
// exactly result_size; nothing is read outside the two buffers, and no more
// than result_size bytes reach the sink. Memory: the streams' decoders and
// a few buffers of 64 KiB. Safe from any thread on distinct sinks.
std::string apply_patch(const unsigned char* base, uint64_t base_size, const unsigned char* patch, uint64_t patch_size,
                        uint64_t result_size, const patch_sink_t& sink);

}  // namespace update
