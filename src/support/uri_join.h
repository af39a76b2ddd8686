// Where a file of a source lives.
#pragma once
#include <string>

namespace update {

// Adds a file name to a URI in place, keeping a query at the end:
// "a/b?k=1" + "update.ini" gives "a/b/update.ini?k=1". A name with a query
// of its own replaces the base's query. Returns base.
std::string& uri_join(std::string& base, const std::string& name);

}  // namespace update
