// Hash library of the agent: file hashes in decorated form, over libgcrypt.
// A decorated hash is "#" or "$", a type name, ":" and the lowercase hex of
// the digest bytes, e.g. "#GOST3411_256_2012:9d15...".
#pragma once
#include <string>

namespace HashFileChecker {

// Hashes the file at path (UTF-8) in the type named by type: a bare
// decoration, a whole decorated hash, a type name or a bare digest; empty or
// unknown means the default "#GOST3411_256_2012:". Streams the file in large
// blocks. On success writes the decorated hash into result, with type's own
// decoration exactly as written when type has a known one ("$sha256:" in,
// "$sha256:" out), and returns true; false if the file cannot be read,
// leaving result unchanged. Safe from any thread.
bool CalcHash(const std::string& path, const std::string& type, std::string& result);

}  // namespace HashFileChecker

namespace update::platform {

// Initialises libgcrypt once for the process, unless the host did already;
// false if the library is older than the one built against. Every use of
// libgcrypt in the module goes through it first. Safe from any thread.
bool gcrypt_ready();

}  // namespace update::platform

// The decoration ("#GOST3411_256_2012:" and so on) for a type name in any
// case, a decoration, or a decorated hash; a bare hex digest of 64 or 128
// digits gives the GOST type of that length. Empty for anything else.
std::string getHashTypeDecorStr(const std::string& text);
