// The bytes a status file can hold. XML carries no C0 control character
// but tab, line feed and carriage return, not even as a character reference:
// a file holding one is not well-formed, and its reader loses all of it.
#pragma once
#include <string>
#include <string_view>

namespace update {

// True for a byte that no XML text or attribute value can hold.
constexpr bool xml_forbidden_byte(unsigned char c) { return c < 0x20 && c != '\t' && c != '\n' && c != '\r'; }

// True when text holds such a byte.
bool has_xml_forbidden_byte(std::string_view text);

// text with each such byte written as "\xNN", for a message that shows it.
std::string xml_forbidden_shown(std::string_view text);

}  // namespace update
