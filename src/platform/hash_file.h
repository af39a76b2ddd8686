// Hash library of the agent: file hashes in decorated form, over libgcrypt.
// A decorated hash is "#" or "$", a type name, ":" and the lowercase hex of
// the digest bytes, e.g. "#GOST3411_256_2012:9d15...".
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

struct gcry_md_handle;  // <gcrypt.h>

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

// A hash fed piece by piece, in the type and decoration CalcHash gives for
// the same type text. Owns the library's handle. One thread at a time; a
// thread that takes it over from another needs a happens-before edge (a
// join, a lock).
class running_hash_t {
 public:
  explicit running_hash_t(const std::string& type);
  ~running_hash_t();
  running_hash_t(const running_hash_t&) = delete;
  running_hash_t& operator=(const running_hash_t&) = delete;

  // False when the library could not start; nothing else works then.
  bool ready() const { return handle_ != nullptr; }
  void add(const void* bytes, size_t count);
  // Feeds the file at path (UTF-8), up to length bytes. False if it cannot
  // be read, or, with a length, ends before it; the state then holds what
  // was read.
  bool add_file(const char* path, uint64_t length = UINT64_MAX);
  // Bytes fed since the start or the last reset.
  uint64_t size() const { return size_; }
  // Back to no bytes fed.
  void reset();
  // The decorated hash of the bytes fed. Ends the state: reset before
  // feeding it again.
  std::string result();

 private:
  ::gcry_md_handle* handle_ = nullptr;
  int algo_ = 0;
  std::string decoration_;
  uint64_t size_ = 0;
};

// How many times this process has read a file for a hash (CalcHash,
// running_hash_t::add_file). For benchmarks and tests.
uint64_t hash_reads_done();

// Initialises libgcrypt once for the process, unless the host did already;
// false if the library is older than the one built against. Every use of
// libgcrypt in the module goes through it first. Safe from any thread.
bool gcrypt_ready();

}  // namespace update::platform

// The decoration ("#GOST3411_256_2012:" and so on) for a type name in any
// case, a decoration, or a decorated hash; a bare hex digest of 64 or 128
// digits gives the GOST type of that length. Empty for anything else.
std::string getHashTypeDecorStr(const std::string& text);
