#include "support/serial_store.h"

#include "support/message_format.h"
#include "support/text_fields.h"

namespace update {

namespace {

constexpr std::string_view header = "corvid-update-serials 1";

bool escaped(unsigned char c) { return c < 0x20 || c == 0x7F || c == '\\'; }

// The URI of a line; false at a raw control byte or an escape that the
// writer would not have made.
bool unescape(std::string_view text, std::string& uri) {
  uri.clear();
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c != '\\') {
      if (escaped(c)) return false;
      uri += text[i];
      continue;
    }
    std::string byte;
    if (text.substr(i + 1, 1) != "x" || !bytes_of_hex(text.substr(i + 2, 2), 1, byte) ||
        !escaped(static_cast<unsigned char>(byte[0])))
      return false;
    uri += byte;
    i += 3;
  }
  return true;
}

}  // namespace

std::string serial_store_text(const serial_store_t& serials) {
  std::string text(header);
  text += '\n';
  for (const auto& [uri, serial] : serials) {
    text += std::to_string(serial);
    text += ' ';
    for (char c : uri) {
      if (escaped(static_cast<unsigned char>(c)))
        text += "\\x" + hex_lower(std::string_view(&c, 1));
      else
        text += c;
    }
    text += '\n';
  }
  return text;
}

bool read_serial_store(std::string_view text, serial_store_t& serials, std::string& reason) {
  text_lines_t lines(text);
  if (!lines.exactly(header, reason)) return false;
  serial_store_t read;
  while (lines.offset() < text.size()) {
    std::string_view line;
    if (!lines.line(line, reason)) return false;
    const size_t space = line.find(' ');
    uint64_t serial = 0;
    std::string uri;
    const char* fault = nullptr;
    if (space == std::string_view::npos || !parse_serial(line.substr(0, space), serial))
      fault = "does not begin with a serial and a space";
    else if (!unescape(line.substr(space + 1), uri))
      fault = "holds a control byte or an unknown escape";
    else if (!read.emplace(uri, serial).second)
      fault = "names a source again";
    if (fault) {
      reason = format_message("%sline %u %s", "", lines.number(), fault);
      return false;
    }
  }
  serials = std::move(read);
  return true;
}

}  // namespace update
