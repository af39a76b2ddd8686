#include "support/text_fields.h"

#include <cstdint>

#include "support/message_format.h"

namespace update {

bool text_lines_t::line(std::string_view& out, std::string& reason) {
  const unsigned number = number_ + 1;
  const size_t end = text_.find('\n', at_);
  if (end == std::string_view::npos) {
    reason = at_ == text_.size() ? format_message("%sline %u is missing", "", number)
                                 : format_message("%sline %u has no line end", "", number);
    return false;
  }
  const std::string_view found = text_.substr(at_, end - at_);
  if (found.find('\r') != std::string_view::npos) {
    reason = format_message("%sline %u holds a carriage return (lines end in LF alone)", "", number);
    return false;
  }
  out = found;
  at_ = end + 1;
  number_ = number;
  return true;
}

bool text_lines_t::exactly(std::string_view expected, std::string& reason) {
  const text_lines_t before = *this;
  std::string_view found;
  if (!line(found, reason)) return false;
  if (found == expected) return true;
  *this = before;
  reason = format_message("%sline %u is not \"%.*s\"", "", number_ + 1, static_cast<int>(expected.size()),
                          expected.data());
  return false;
}

bool text_lines_t::field(std::string_view name, std::string_view& value, std::string& reason) {
  const text_lines_t before = *this;
  std::string_view found;
  if (!line(found, reason)) return false;
  if (found.size() > name.size() + 1 && found.substr(0, name.size()) == name && found.substr(name.size(), 2) == ": ") {
    value = found.substr(name.size() + 2);
    return true;
  }
  *this = before;
  reason = format_message("%sline %u is not \"%.*s: ...\"", "", number_ + 1, static_cast<int>(name.size()), name.data());
  return false;
}

bool text_lines_t::at_end(std::string& reason) const {
  if (at_ == text_.size()) return true;
  reason = format_message("%stext after line %u", "", number_);
  return false;
}

namespace {

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool bytes_of_hex(std::string_view hex, size_t size, std::string& bytes) {
  if (hex.size() != 2 * size) return false;
  std::string out(size, '\0');
  for (size_t i = 0; i < size; ++i) {
    const int high = hex_value(hex[2 * i]), low = hex_value(hex[2 * i + 1]);
    if (high < 0 || low < 0) return false;
    out[i] = static_cast<char>(high << 4 | low);
  }
  bytes = std::move(out);
  return true;
}

bool parse_serial(std::string_view text, uint64_t& value) {
  if (text.empty() || text.size() > 20 || (text[0] == '0' && text.size() > 1)) return false;
  uint64_t v = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const unsigned digit = static_cast<unsigned>(c - '0');
    if (v > (UINT64_MAX - digit) / 10) return false;
    v = v * 10 + digit;
  }
  value = v;
  return true;
}

}  // namespace update
