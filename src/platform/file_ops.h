// Operating-system file calls. Paths are UTF-8 bytes. Nothing here reports:
// results are false, null or 0, and callers word their own messages.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

namespace update::platform {

// The native path separator, as one character and as text.
extern const char path_separator;
extern const char* const path_separator_text;

// Opens a C stream with an fopen mode ("rb", "wb", "ab", "r+b", ...).
// deny_write: while the stream is open, other writers are kept out where the
// system allows it (an advisory lock on POSIX). Null on failure.
FILE* open_file(const char* path, const char* mode, bool deny_write);

// Size of the file in bytes; false if it cannot be queried.
bool query_file_size(const char* path, uint64_t& size);

// True if the path names an existing file system object.
bool path_exists(const char* path);

// Cuts an open stream's file to size bytes (flushing the stream first).
bool truncate_file(FILE* file, uint64_t size);

// Flushes the stream and asks the system to put the file's data on disk.
bool sync_file(FILE* file);

// Renames source onto target, replacing it, and makes the rename durable
// (the directory of the target is synchronised) before returning.
bool replace_file(const char* source, const char* target);

// Deletes a file. False if it was not there or could not be deleted.
bool remove_file(const char* path);

// Creates a directory and its missing parents with the given mode bits.
bool make_directories(const char* path, unsigned mode);

// Fault injection for tests: while set, the named operation fails as the
// system would. Production code never sets these.
struct file_faults_t {
  bool fail_replace = false;
  bool fail_truncate = false;
  bool fail_open_write = false;  // open with "w", "a" or "+" modes
};
file_faults_t& file_faults();

}  // namespace update::platform
