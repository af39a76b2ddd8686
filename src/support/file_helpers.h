// File operations on UTF-8 paths, over the platform layer. None of these
// raises or reports: results are false, 0, null or a stream in fail state.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

namespace std {

// Input and output file streams that take a UTF-8 path. Other readers and
// writers are not kept out. A failed open leaves the stream in fail state.
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
// writing is open, other writers are kept out where the system allows it.
// mode_size is the length of the mode including its terminator.
FILE* fopen_utf8(const char* path, const char* mode, size_t mode_size);

// True if the file can be opened for reading.
bool file_exists(const std::string& path);

// Size in bytes; 0 for a missing file as well as an empty one.
uint64_t file_size(const std::string& path);

// Renames source onto target, replacing it; durable when it returns.
bool move_file(const std::string& source, const std::string& target);

// Deletes path + ".download." + version, then path itself. Missing files are
// no failure, and nothing is reported.
void remove_download(const std::string& path, const std::string& version);

// The name of a partial download: path + ".download." + version.
std::string download_name(const std::string& path, const std::string& version);

// path + ".bak".
std::string backup_name(const std::string& path);

// Appends two upper-case hex digits per byte, separator (if not 0) between.
void hex_text(const unsigned char* bytes, size_t count, std::string& text, char separator);

// Owner of a C stream: closes it when it goes.
struct file_closer_t {
  void operator()(FILE* f) const { if (f) std::fclose(f); }
};

}  // namespace update
