#include "sign/patch_make.h"

#include <divsufsort.h>
#include <lzma.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/mapped_file.h"
#include "support/file_helpers.h"
#include "support/patch_apply.h"

namespace update {

namespace {

// A new alignment must match this many bytes more than the current one
// before a block starts there: fewer blocks cost less than a few diff bytes.
constexpr size_t min_gain = 8;

// The base's suffixes in order, to find the longest match of any text.
class suffix_index_t {
 public:
  suffix_index_t(const unsigned char* base, size_t size) : base_(base), size_(size), order_(size) {
    if (size != 0) divsufsort(base, order_.data(), static_cast<saidx_t>(size));
  }
  // The length of the longest prefix of text that occurs in the base, and
  // where in the base it starts.
  size_t longest(const unsigned char* text, size_t length, size_t& where) const {
    where = 0;
    if (size_ == 0) return 0;
    // The suffixes just below and above text in the order hold the longest
    // common prefix between them.
    size_t low = 0, high = size_;
    while (high - low > 1) {
      const size_t middle = low + (high - low) / 2;
      const size_t start = static_cast<size_t>(order_[middle]);
      const size_t common = std::min(size_ - start, length);
      const int order = std::memcmp(base_ + start, text, common);
      if (order < 0 || (order == 0 && size_ - start < length))
        low = middle;
      else
        high = middle;
    }
    size_t best = 0;
    for (size_t at : {low, high}) {
      if (at >= size_) continue;
      const size_t start = static_cast<size_t>(order_[at]);
      const size_t n = shared_prefix(base_ + start, size_ - start, text, length);
      if (n > best) best = n, where = start;
    }
    return best;
  }

 private:
  static size_t shared_prefix(const unsigned char* a, size_t a_size, const unsigned char* b, size_t b_size) {
    const size_t most = std::min(a_size, b_size);
    size_t n = 0;
    while (n < most && a[n] == b[n]) ++n;
    return n;
  }

  const unsigned char* base_;
  size_t size_;
  std::vector<saidx_t> order_;
};

void append_number(std::string& out, uint64_t value) {
  for (; value >= 0x80; value >>= 7) out += static_cast<char>(value | 0x80);
  out += static_cast<char>(value);
}

// The three streams before compression.
struct streams_t {
  std::string control, diff, extra;
  uint64_t position = 0;  // where the applier stands in the base

  // copy bytes from the base at from, then add bytes of the result at add_from.
  void record(const unsigned char* base, const unsigned char* result, size_t from, size_t copy_to, size_t copy,
              size_t add) {
    if (copy == 0 && add == 0) return;
    if (copy == 0) from = position;
    const int64_t seek = static_cast<int64_t>(from) - static_cast<int64_t>(position);
    append_number(control, static_cast<uint64_t>(seek) << 1 ^ static_cast<uint64_t>(seek >> 63));
    append_number(control, copy);
    append_number(control, add);
    for (size_t i = 0; i < copy; ++i) diff += static_cast<char>(result[copy_to + i] - base[from + i]);
    extra.append(reinterpret_cast<const char*>(result + copy_to + copy), add);
    position = from + copy;
  }
};

// Cuts the result into blocks that follow the base at one alignment each,
// with what no alignment gives between them. A block is found at the longest
// match of the base, then stretched forward and backward as long as most of
// the bytes still agree: the diff stream holds the few that do not.
class differ_t {
 public:
  differ_t(const unsigned char* base, size_t base_size, const unsigned char* result, size_t result_size)
      : base_(base), base_size_(base_size), result_(result), result_size_(result_size), index_(base, base_size) {}

  streams_t run() {
    streams_t out;
    size_t scan = 0, length = 0, match = 0;
    size_t block = 0, block_base = 0;  // where the current block starts in the result and the base
    int64_t offset = 0;                // base position minus result position in the current block
    while (scan < result_size_) {
      scan += length;
      // along: bytes of [scan, counted) that the current alignment matches.
      size_t counted = scan, along = 0;
      for (; scan < result_size_; ++scan) {
        length = index_.longest(result_ + scan, result_size_ - scan, match);
        for (; counted < scan + length; ++counted) along += same(counted, offset);
        if ((length == along && length != 0) || length > along + min_gain) break;
        if (scan < counted && same(scan, offset)) --along;
      }
      if (length == along && scan != result_size_) continue;
      size_t forward = best_forward(block, block_base, scan);
      size_t backward = scan < result_size_ ? best_backward(block, scan, match) : 0;
      if (block + forward > scan - backward) {
        const size_t overlap = block + forward - (scan - backward),
                     cut = best_cut(scan - backward, overlap, block, block_base, scan, match);
        forward = forward - overlap + cut;
        backward -= cut;
      }
      out.record(base_, result_, block_base, block, forward, scan - backward - block - forward);
      block = scan - backward;
      block_base = match - backward;
      offset = static_cast<int64_t>(match) - static_cast<int64_t>(scan);
    }
    return out;
  }

 private:
  bool same(size_t at, int64_t offset) const {
    const int64_t in_base = static_cast<int64_t>(at) + offset;
    return in_base >= 0 && static_cast<size_t>(in_base) < base_size_ && base_[in_base] == result_[at];
  }
  // How far the block at (from, from_base) goes on profitably toward end:
  // the length where twice the matching bytes outweigh the length most.
  size_t best_forward(size_t from, size_t from_base, size_t end) const {
    size_t best = 0;
    int64_t score = 0, best_score = 0;
    for (size_t k = 0; from + k < end && from_base + k < base_size_; ++k) {
      score += base_[from_base + k] == result_[from + k] ? 1 : -1;
      if (score > best_score) best_score = score, best = k + 1;
    }
    return best;
  }
  // The same backward from the match at (at, at_base), not before floor.
  size_t best_backward(size_t floor, size_t at, size_t at_base) const {
    size_t best = 0;
    int64_t score = 0, best_score = 0;
    for (size_t k = 1; at >= floor + k && at_base >= k; ++k) {
      score += base_[at_base - k] == result_[at - k] ? 1 : -1;
      if (score > best_score) best_score = score, best = k;
    }
    return best;
  }
  // How many of the overlap's bytes from start go to the forward block.
  size_t best_cut(size_t start, size_t overlap, size_t block, size_t block_base, size_t at, size_t at_base) const {
    size_t best = 0;
    int64_t score = 0, best_score = 0;
    for (size_t i = 0; i < overlap; ++i) {
      const size_t p = start + i;
      score += (base_[p - block + block_base] == result_[p]) - (base_[p - at + at_base] == result_[p]);
      if (score > best_score) best_score = score, best = i + 1;
    }
    return best;
  }

  const unsigned char* base_;
  size_t base_size_;
  const unsigned char* result_;
  size_t result_size_;
  suffix_index_t index_;
};

// One .xz stream of the strongest preset, its dictionary no larger than the
// data, so that the applier's decoder asks for no more memory than needed.
bool compress(const std::string& data, std::string& out, std::string& error) {
  lzma_options_lzma options;
  lzma_lzma_preset(&options, 9 | LZMA_PRESET_EXTREME);
  options.dict_size = static_cast<uint32_t>(std::clamp<size_t>(data.size(), LZMA_DICT_SIZE_MIN, size_t{64} << 20));
  // The streams are bytes without an alignment; measured on shared
  // libraries, this setting saves about one byte in a hundred.
  options.lc = 2;
  options.pb = 0;
  const lzma_filter filters[] = {{LZMA_FILTER_LZMA2, &options}, {LZMA_VLI_UNKNOWN, nullptr}};
  lzma_stream stream = LZMA_STREAM_INIT;
  // The patch's own hash guards it: a check of its own would add bytes.
  if (lzma_stream_encoder(&stream, filters, LZMA_CHECK_NONE) != LZMA_OK) {
    error = "cannot start the compressor";
    return false;
  }
  out.resize(lzma_stream_buffer_bound(data.size()));
  stream.next_in = reinterpret_cast<const uint8_t*>(data.data());
  stream.avail_in = data.size();
  stream.next_out = reinterpret_cast<uint8_t*>(out.data());
  stream.avail_out = out.size();
  const lzma_ret result = lzma_code(&stream, LZMA_FINISH);
  out.resize(out.size() - stream.avail_out);
  lzma_end(&stream);
  if (result != LZMA_STREAM_END) error = "the compressor failed";
  return result == LZMA_STREAM_END;
}

}  // namespace

bool make_patch(const unsigned char* base, uint64_t base_size, const unsigned char* result, uint64_t result_size,
                std::string& patch, std::string& error) {
  constexpr uint64_t most = uint64_t{1} << 31;
  if (base_size >= most || result_size >= most) {
    error = "a file of 2 GiB or more";
    return false;
  }
  const streams_t streams = differ_t(base, base_size, result, result_size).run();
  std::string control, diff, extra;
  if (!compress(streams.control, control, error) || !compress(streams.diff, diff, error) ||
      !compress(streams.extra, extra, error))
    return false;
  patch = write_patch_header({base_size, result_size, control.size(), diff.size(), extra.size()});
  patch += control;
  patch += diff;
  patch += extra;
  return true;
}

bool make_patch_file(const std::string& base_path, const std::string& result_path, const std::string& patch_path,
                     std::string& error) {
  platform::mapped_file_t base, result;
  for (auto [file, path] : {std::pair{&base, &base_path}, std::pair{&result, &result_path}})
    if (!file->map(path->c_str())) {
      error = "cannot read " + *path;
      return false;
    }
  std::string patch;
  if (!make_patch(base.data(), base.size(), result.data(), result.size(), patch, error)) return false;
  if (write_file_atomically(patch_path, {patch}) == atomic_write_t::done) return true;
  error = "cannot write " + patch_path;
  return false;
}

}  // namespace update
