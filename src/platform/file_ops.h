// Operating-system file calls. Paths are UTF-8 bytes. Nothing here reports:
// results are false, null or 0, and callers word their own messages. Every
// operation is safe from any thread; a stream is used by one thread at a time.
#pragma once
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>

namespace update::platform {

// The native path separator, as one character and as text.
extern const char path_separator;
extern const char* const path_separator_text;

// Opens a C stream with an fopen mode: "r", "w" or "a", then any of "b",
// "t" and "+" (other letters are ignored). Directories do not open.
// A mode that writes never follows a symbolic link in the last component
// (errno ELOOP) nor writes to a regular file that has a second name (EMLINK),
// and creates a new file exclusively, so that a link planted at the name
// cannot carry the write elsewhere.
// deny_write: if the mode writes, the stream holds an exclusive advisory lock
// (flock) on the file while it is open; a second such open of the same file,
// from this process or another, fails instead of waiting, and the file is
// not truncated by that failed open. Reading opens take no lock, so readers
// are never kept out. The descriptor is not inherited by child processes.
// Null on failure.
FILE* open_file(const char* path, const char* mode, bool deny_write);

// Size of the object at path in bytes (0 for anything but a regular file);
// false if it cannot be queried.
bool query_file_size(const char* path, uint64_t& size);

// True if the path names an existing file system object.
bool path_exists(const char* path);

// Cuts an open stream's file to size bytes, flushing the stream first. The
// stream's position is not moved.
bool truncate_file(FILE* file, uint64_t size);

// Flushes the stream and waits until the file's data (and its size) are on
// disk. The name is not synchronised: see sync_directory_of.
bool sync_file(FILE* file);
// The same for the file at path.
bool sync_path(const char* path);

// Asks the system to start writing the file's data to disk now, without
// waiting, so that a later sync_path finds little left to do. A hint: does
// nothing where the system has no such call.
void start_writeback(const char* path);
// The same for the file of an open stream, from the calling thread: for a
// writer that asks every few megabytes, it may wait briefly while the
// device's queue is full. Data still in the stream's buffer is not included.
void start_writeback(FILE* file);

// Waits until the entries of the directory that holds path (renames,
// creations, deletions) are on disk.
bool sync_directory_of(const char* path);

// How many times this process has waited for data or a directory to reach
// the disk (sync_file, sync_path, sync_directory_of). For benchmarks.
uint64_t syncs_done();

// Renames source onto target, replacing it atomically: a reader, and the
// disk after a crash or a power loss, see the old or the new file, never a
// mix, provided the source's data were synced first. The new name itself
// reaches the disk with the file system's next commit, or at once with
// sync_directory_of. On false the target is as it was. Does not copy across
// file systems.
bool replace_file(const char* source, const char* target);

// Deletes a file. False if it was not there or could not be deleted.
bool remove_file(const char* path);

// Creates a directory and its missing parents with the given mode bits.
// True if the directory exists afterwards.
bool make_directories(const char* path, unsigned mode);

// Takes an exclusive lock on the directory at path itself for this process,
// creating no file in it, so that a directory the process cannot write can
// be locked as well. The lock lasts until the process ends (the descriptor
// is never closed). Taking a directory this process already holds, by any
// name, succeeds again. False on failure: errno EWOULDBLOCK when another
// process holds it, and holder then receives that process's id as the
// system tells it, or 0 when it does not; any other errno is the cause.
bool lock_directory(const char* path, long& holder);

// Fault injection for tests: while a flag is set, the named operation fails
// as the system would, with errno set. Production code never sets these.
struct file_faults_t {
  std::atomic<bool> fail_replace{false};
  std::atomic<bool> fail_truncate{false};
  std::atomic<bool> fail_open_write{false};  // any mode with "w", "a" or "+"
  std::atomic<bool> fail_sync{false};        // the disk refuses the data
};
file_faults_t& file_faults();

}  // namespace update::platform
