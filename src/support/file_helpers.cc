// Placeholder until the file helpers land.
#include "support/file_helpers.h"

namespace std {
utf8_ifstream::utf8_ifstream(const std::string& path, std::ios_base::openmode mode) : std::ifstream(path, mode) {}
utf8_ifstream::~utf8_ifstream() = default;
utf8_ofstream::utf8_ofstream(const std::string& path, std::ios_base::openmode mode) : std::ofstream(path, mode) {}
utf8_ofstream::~utf8_ofstream() = default;
}  // namespace std

namespace update {
FILE* fopen_utf8(const char* path, const char* mode, size_t) { return (path && mode) ? std::fopen(path, mode) : nullptr; }
bool file_exists(const std::string&) { return false; }
uint64_t file_size(const std::string&) { return 0; }
bool move_file(const std::string&, const std::string&) { return false; }
void remove_download(const std::string&, const std::string&) {}
std::string download_name(const std::string& path, const std::string& version) { return path + ".download." + version; }
std::string backup_name(const std::string& path) { return path + ".bak"; }
void hex_text(const unsigned char*, size_t, std::string&, char) {}
}  // namespace update
