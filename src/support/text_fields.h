// What the signature's text formats share: lines that each end in LF, read
// one at a time with their number for the reasons of a refusal, and hex.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/ascii_text.h"  // hex_lower

namespace update {

// Reads a text line by line. Each failed read sets reason to a short
// lower-case phrase that names the line ("line 3 ...") and leaves the
// position where it was.
class text_lines_t {
 public:
  explicit text_lines_t(std::string_view text) : text_(text) {}

  // The next line without its LF. Refuses a line without an LF after it and
  // one that holds a carriage return.
  bool line(std::string_view& out, std::string& reason);
  // The next line must be exactly `expected`.
  bool exactly(std::string_view expected, std::string& reason);
  // The next line must be "name: VALUE"; value receives VALUE.
  bool field(std::string_view name, std::string_view& value, std::string& reason);
  // Refuses anything left after the last line read.
  bool at_end(std::string& reason) const;

  size_t offset() const { return at_; }  // bytes read so far, each line with its LF
  unsigned number() const { return number_; }  // lines read so far

 private:
  std::string_view text_;
  size_t at_ = 0;
  unsigned number_ = 0;
};

// Hex digits of either case to exactly `size` bytes; false for any other text.
bool bytes_of_hex(std::string_view hex, size_t size, std::string& bytes);
// A decimal number below 2^64 in its plain form: digits only, no leading zero.
bool parse_serial(std::string_view text, uint64_t& value);

}  // namespace update
