// File operations on UTF-8 paths, over the platform layer. None of these
// raises or reports: results are false, 0, null or a stream in fail state.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>

namespace std {

// Input and output file streams that take a UTF-8 path. Other readers and
// writers are not kept out. A failed open leaves the stream in fail state;
// no exception leaves the constructor. The output stream honours the test
// fault platform::file_faults().fail_open_write.
class utf8_ifstream : public std::ifstream {
 public:
  explicit utf8_ifstream(const std::string& path, std::ios_base::openmode mode = std::ios_base::in);
  ~utf8_ifstream() override;
};

class utf8_ofstream : public std::ofstream {
 public:
  explicit utf8_ofstream(const std::string& path, std::ios_base::openmode mode = std::ios_base::out | std::ios_base::trunc);
  ~utf8_ofstream() override;
};

}  // namespace std

namespace update {

// Opens a stream; null path or mode gives null. While a stream opened for
// writing is open, other writers that ask the same way are kept out (the open
// fails at once, see platform::open_file); readers are not. mode_size is the
// length of the mode including its terminator; the mode is read up to it.
FILE* fopen_utf8(const char* path, const char* mode, size_t mode_size);

// True if the file can be opened for reading.
bool file_exists(const std::string& path);

// Reads the whole file at path into bytes. False if it cannot be opened (a
// directory does not open) or a read fails: unlike a stream's, a failed read
// raises nothing.
bool read_whole_file(const std::string& path, std::string& bytes);

// Size in bytes; 0 for a missing file as well as an empty one.
uint64_t file_size(const std::string& path);

// Renames source onto target, replacing it atomically (see
// platform::replace_file for when the new name lasts).
bool move_file(const std::string& source, const std::string& target);

// Deletes what remove_partial_download does, then path itself. Missing
// files are no failure, and nothing is reported.
void remove_download(const std::string& path, const std::string& version);
// Deletes download_name, patch_name and patched_name of path and version;
// path stays, as the file a patch of the next version may apply to.
void remove_partial_download(const std::string& path, const std::string& version);

// The name of a partial download: path + ".download." + version.
std::string download_name(const std::string& path, const std::string& version);
// Where a patch toward that download is fetched to (download_name +
// ".patch"), and where the file it makes is written (+ ".patched").
std::string patch_name(const std::string& path, const std::string& version);
std::string patched_name(const std::string& path, const std::string& version);

// text without up to `most` trailing separators ("\\" or "/"). A text made
// only of separators stays as it is, so that a root keeps its name.
std::string without_trailing_separators(std::string_view text, size_t most = SIZE_MAX);

// path + ".bak".
std::string backup_name(const std::string& path);

// How write_file_atomically ended. Only not_opened leaves no trace on disk.
enum class atomic_write_t {
  done,
  not_opened,    // the companion could not be created
  not_written,   // a write, the flush or the sync failed; the companion stays
  not_replaced,  // the companion is whole, the rename failed
};

// Replaces the file at path with the concatenated parts so that a crash or a
// power loss at any moment leaves either the old file or the new one whole:
// writes the companion backup_name(path) (created anew, whatever was at its
// name removed first), syncs its
// data (the one wait for the disk) and renames it over path. The new name
// lasts through a power loss once the file system commits, or at once after
// platform::sync_directory_of(path). Stops at the first failure; the file at
// path is then untouched. The status writer's one way to disk.
atomic_write_t write_file_atomically(const std::string& path, std::initializer_list<std::string_view> parts);

// Appends two upper-case hex digits per byte, separator (if not 0) between.
void hex_text(const unsigned char* bytes, size_t count, std::string& text, char separator);

// Owner of a C stream: closes it when it goes.
struct file_closer_t {
  void operator()(FILE* f) const { if (f) std::fclose(f); }
};

}  // namespace update
