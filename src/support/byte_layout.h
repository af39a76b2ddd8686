// The byte layouts the module and its client exchange through the bridge:
// numbers in the machine's byte order without padding, texts behind their
// unsigned 32-bit length. One writer and one reader for both sides.
#pragma once
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

namespace update {

template <typename T>
void append_number(std::string& out, T value) {
  static_assert(std::is_arithmetic_v<T>);
  char bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  out.append(bytes, sizeof value);
}

inline void append_counted(std::string& out, const std::string& text) {
  append_number(out, static_cast<uint32_t>(text.size()));
  out += text;
}

// Reads fields from the front of bytes, refusing to run past their end;
// a refused read leaves the field and the position as they were.
class byte_reader_t {
 public:
  explicit byte_reader_t(const std::string& bytes) : bytes_(bytes) {}
  template <typename T>
  bool number(T& out) {
    static_assert(std::is_arithmetic_v<T>);
    if (bytes_.size() - at_ < sizeof out) return false;
    std::memcpy(&out, bytes_.data() + at_, sizeof out);
    at_ += sizeof out;
    return true;
  }
  bool counted(std::string& text) {
    uint32_t length = 0;
    if (bytes_.size() - at_ < sizeof length) return false;
    std::memcpy(&length, bytes_.data() + at_, sizeof length);
    if (bytes_.size() - at_ - sizeof length < length) return false;
    text.assign(bytes_, at_ + sizeof length, length);
    at_ += sizeof length + length;
    return true;
  }

 private:
  const std::string& bytes_;
  size_t at_ = 0;
};

}  // namespace update
