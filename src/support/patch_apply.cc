#include "support/patch_apply.h"

#include <lzma.h>

#include <algorithm>
#include <cstring>
#include <memory>

namespace update {

namespace {

constexpr unsigned char magic[8] = {'C', 'R', 'V', 'P', 'A', 'T', '0', '1'};
constexpr size_t buffer_size = size_t{64} << 10;

uint64_t little_endian(const unsigned char* bytes) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

// One decompressed stream of the patch, read through a buffer of its own.
class stream_reader_t {
 public:
  stream_reader_t(const char* name, const unsigned char* bytes, uint64_t length) : name_(name) {
    stream_.next_in = bytes;
    stream_.avail_in = static_cast<size_t>(length);
    started_ = lzma_stream_decoder(&stream_, patch_stream_memory, 0) == LZMA_OK;
  }
  ~stream_reader_t() { lzma_end(&stream_); }
  stream_reader_t(const stream_reader_t&) = delete;
  stream_reader_t& operator=(const stream_reader_t&) = delete;

  // Exactly count bytes into out; false (with why) when the stream ends
  // first or is damaged.
  bool read(unsigned char* out, size_t count, std::string& error) {
    while (count > 0) {
      if (at_ == filled_ && !refill(error))
        return error.empty() ? fail("ends before the result is whole", error) : false;
      const size_t n = std::min(count, filled_ - at_);
      std::memcpy(out, buffer_.get() + at_, n);
      at_ += n;
      out += n;
      count -= n;
    }
    return true;
  }
  // A LEB128 number of at most 64 bits.
  bool number(uint64_t& value, std::string& error) {
    value = 0;
    for (unsigned shift = 0;; shift += 7) {
      unsigned char byte = 0;
      if (!read(&byte, 1, error)) return false;
      if (shift == 63 && byte > 1) return fail("a number beyond 64 bits", error);
      value |= uint64_t{byte & 0x7Fu} << shift;
      if (!(byte & 0x80)) return true;
    }
  }
  // True when everything was read and the stream ended there.
  bool finished(std::string& error) {
    std::string damage;
    if (at_ != filled_ || refill(damage)) return fail("data after the result's end", error);
    if (damage.empty()) return true;
    error = damage;
    return false;
  }

 private:
  bool fail(const char* what, std::string& error) const {
    error = std::string(name_) + " stream: " + what;
    return false;
  }
  // The next bytes into the buffer. False at the stream's end with error
  // empty, or on damage with why.
  bool refill(std::string& error) {
    if (!started_) return fail("cannot start its decoder", error);
    if (!buffer_) buffer_ = std::make_unique<unsigned char[]>(buffer_size);
    at_ = filled_ = 0;
    while (filled_ == 0) {
      if (ended_) return false;
      stream_.next_out = buffer_.get();
      stream_.avail_out = buffer_size;
      // The whole input is there, so a decoder that cannot go on is at a
      // truncated or damaged stream, and says so.
      const lzma_ret result = lzma_code(&stream_, LZMA_FINISH);
      filled_ = buffer_size - stream_.avail_out;
      if (result == LZMA_STREAM_END) {
        ended_ = true;
        if (stream_.avail_in != 0) return fail("data behind its end", error);
      } else if (result != LZMA_OK) {
        return fail(result == LZMA_MEMLIMIT_ERROR ? "asks for too much memory" : "damaged", error);
      }
    }
    return true;
  }

  const char* name_;
  lzma_stream stream_ = LZMA_STREAM_INIT;
  bool started_ = false;
  bool ended_ = false;
  std::unique_ptr<unsigned char[]> buffer_;
  size_t at_ = 0, filled_ = 0;
};

// The result on its way to the sink, a buffer at a time.
class result_writer_t {
 public:
  explicit result_writer_t(const patch_sink_t& sink) : sink_(sink), buffer_(new unsigned char[buffer_size]) {}
  // Room for up to count bytes at the end of the buffer; room() tells how many.
  unsigned char* reserve(size_t count) {
    if (used_ == buffer_size) flush();
    room_ = std::min(count, buffer_size - used_);
    return buffer_.get() + used_;
  }
  size_t room() const { return room_; }
  void commit(size_t count) { used_ += count; }
  bool flush() {
    if (used_ != 0 && ok_) ok_ = sink_(buffer_.get(), used_);
    used_ = 0;
    return ok_;
  }
  bool ok() const { return ok_; }

 private:
  const patch_sink_t& sink_;
  std::unique_ptr<unsigned char[]> buffer_;
  size_t used_ = 0, room_ = 0;
  bool ok_ = true;
};

std::string text_of(uint64_t n) { return std::to_string(n); }

}  // namespace

bool read_patch_header(const unsigned char* patch, uint64_t size, patch_header_t& header, std::string& error) {
  if (size < patch_header_size || std::memcmp(patch, magic, sizeof magic) != 0) {
    error = "not a patch";
    return false;
  }
  header.base_size = little_endian(patch + 8);
  header.result_size = little_endian(patch + 16);
  header.control_length = little_endian(patch + 24);
  header.diff_length = little_endian(patch + 32);
  header.extra_length = little_endian(patch + 40);
  // Each length is checked against what is left, so that no sum overflows.
  uint64_t left = size - patch_header_size;
  for (uint64_t length : {header.control_length, header.diff_length, header.extra_length}) {
    if (length > left) {
      error = "stream lengths run past the patch's " + text_of(size) + " bytes";
      return false;
    }
    left -= length;
  }
  if (left != 0) {
    error = text_of(left) + " bytes behind the streams";
    return false;
  }
  return true;
}

std::string write_patch_header(const patch_header_t& header) {
  std::string bytes(reinterpret_cast<const char*>(magic), sizeof magic);
  for (uint64_t value :
       {header.base_size, header.result_size, header.control_length, header.diff_length, header.extra_length})
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

std::string apply_patch(const unsigned char* base, uint64_t base_size, const unsigned char* patch, uint64_t patch_size,
                        uint64_t result_size, const patch_sink_t& sink) {
  patch_header_t header;
  std::string error;
  if (!read_patch_header(patch, patch_size, header, error)) return error;
  if (header.base_size != base_size)
    return "made for a base of " + text_of(header.base_size) + " bytes, the file has " + text_of(base_size);
  if (header.result_size != result_size)
    return "makes " + text_of(header.result_size) + " bytes, not " + text_of(result_size);
  const unsigned char* at = patch + patch_header_size;
  stream_reader_t control("control", at, header.control_length);
  stream_reader_t diff("diff", at += header.control_length, header.diff_length);
  stream_reader_t extra("extra", at += header.diff_length, header.extra_length);
  result_writer_t out(sink);

  uint64_t position = 0, written = 0;
  while (written < result_size) {
    uint64_t seek = 0, copy = 0, add = 0;
    if (!control.number(seek, error) || !control.number(copy, error) || !control.number(add, error)) return error;
    // Zigzag: even moves forward by half, odd back by half + 1.
    const uint64_t half = seek >> 1;
    if (seek & 1 ? half >= position : half > base_size - position) return "a seek leaves the base";
    position = seek & 1 ? position - half - 1 : position + half;
    if (copy == 0 && add == 0) return "a record that makes nothing";
    if (copy > base_size - position) return "a copy leaves the base";
    if (copy > result_size - written || add > result_size - written - copy) return "a record runs past the result";
    for (uint64_t left = copy; left > 0;) {
      unsigned char* bytes = out.reserve(left);
      const size_t n = out.room();
      if (!diff.read(bytes, n, error)) return error;
      const unsigned char* from = base + position;
      for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<unsigned char>(bytes[i] + from[i]);
      out.commit(n);
      position += n;
      left -= n;
    }
    for (uint64_t left = add; left > 0;) {
      unsigned char* bytes = out.reserve(left);
      const size_t n = out.room();
      if (!extra.read(bytes, n, error)) return error;
      out.commit(n);
      left -= n;
    }
    written += copy + add;
    if (!out.ok()) return "the result could not be written";
  }
  if (!control.finished(error) || !diff.finished(error) || !extra.finished(error)) return error;
  if (!out.flush()) return "the result could not be written";
  return "";
}

}  // namespace update
