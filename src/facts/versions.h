// Version facts: the version order and the reader of a file's version record.
#pragma once
#include <string>

namespace update {

// Text comparison after dropping one leading "!" or "~"; both empty is equal.
bool version_equal(const std::string& a, const std::string& b);
// Numeric components first, then the remainders bytewise; empty is lowest.
bool version_less(const std::string& a, const std::string& b);
// Decorations compared when their colons line up, digests without case.
bool hash_equal(const std::string& a, const std::string& b);

// Reads dir + name + ".version": the first non-empty trimmed line that is
// not a comment. Leaves version as it is when the file cannot be opened.
// warn: log what is missing with id 366.
void current_version_of(const std::string& dir, const std::string& name, std::string& version, bool warn);

}  // namespace update
