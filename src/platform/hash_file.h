// Hash library of the agent: file hashes in decorated form, over libgcrypt.
// A decorated hash is "#" or "$", a type name, ":" and the lowercase hex of
// the digest bytes, e.g. "#GOST3411_256_2012:9d15...".
#pragma once
#include <string>

namespace HashFileChecker {

// Hashes the file at path (UTF-8) in the type named by the decoration of
// type (a bare decoration, a whole decorated hash, or empty for the default
// "#GOST3411_256_2012:"), streaming it in large blocks. On success writes the
// decorated hash into result and returns true; false if the type is unknown
// or the file cannot be read, leaving result unchanged. Safe from any thread.
bool CalcHash(const std::string& path, const std::string& type, std::string& result);

}  // namespace HashFileChecker

// The decoration ("#GOST3411_256_2012:" and so on) for a type name in any
// case, a decoration, or a decorated hash; a bare hex digest of 64 or 128
// digits gives the GOST type of that length. Empty for anything else.
std::string getHashTypeDecorStr(const std::string& text);
