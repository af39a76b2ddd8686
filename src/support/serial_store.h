// The highest serial this agent has accepted from each source, as text.
// Only the text is here; the caller reads and writes the file (atomically
// and durably, like the status).
//
// The text: a first line "corvid-update-serials 1", then one line per
// source, "SERIAL URI": the serial in decimal below 2^64 without leading
// zeros, one space, and the source's URI to the end of the line, every line
// ended by LF. Any byte may stand in a URI: the bytes 0x00 to 0x1F, 0x7F and
// the backslash are written as "\x" and two lower-case hex digits, so a line
// holds no control byte. Lines are in byte order of the URIs; a reader takes
// them in any order.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace update {

using serial_store_t = std::map<std::string, uint64_t>;  // source URI to its highest serial

std::string serial_store_text(const serial_store_t& serials);

// False with a short lower-case reason naming the line ("line 4 ...") for
// any text serial_store_text cannot have written: no header, a line without
// its LF, a serial that is not a number, an unknown escape, a raw control
// byte, a URI listed twice. serials is untouched then: a damaged file is
// refused, never taken as empty.
bool read_serial_store(std::string_view text, serial_store_t& serials, std::string& reason);

}  // namespace update
