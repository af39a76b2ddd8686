// The sources file: the update sources a command without URIs uses, one URI
// a line. Blank lines and lines whose first non-blank character is "#" are
// left out; blanks around a URI are dropped, and a CR before the LF too.
#pragma once
#include <list>
#include <string>
#include <string_view>

namespace update {

// Reads the sources in text, in order. False for a line that is not an
// http, https or file URI, or one with a blank or a control character
// inside: reason names the line ("line 3: not an http, https or file URI:
// TEXT"), and sources holds the lines before it. No source at all is no
// failure here.
bool read_sources(std::string_view text, std::list<std::string>& sources, std::string& reason);

}  // namespace update
