#include "support/file_helpers.h"

#include <cstring>
#include <memory>

#include "platform/file_ops.h"

namespace std {

utf8_ifstream::utf8_ifstream(const std::string& path, std::ios_base::openmode mode) {
  open(path, mode | std::ios_base::in);
}

utf8_ifstream::~utf8_ifstream() = default;

utf8_ofstream::utf8_ofstream(const std::string& path, std::ios_base::openmode mode) {
  if (update::platform::file_faults().fail_open_write) {
    setstate(std::ios_base::failbit);
    return;
  }
  open(path, mode | std::ios_base::out);
}

utf8_ofstream::~utf8_ofstream() = default;

}  // namespace std

namespace update {

namespace {

// Longest mode the system's wide call would take (its buffer has 20 units).
constexpr size_t mode_buffer_size = 20;

}  // namespace

FILE* fopen_utf8(const char* path, const char* mode, size_t mode_size) {
  if (!path || !mode) return nullptr;
  size_t limit = mode_size < mode_buffer_size ? mode_size : mode_buffer_size - 1;
  const std::string mode_text(mode, strnlen(mode, limit));
  return platform::open_file(path, mode_text.c_str(), true);
}

bool file_exists(const std::string& path) {
  std::unique_ptr<FILE, file_closer_t> file(fopen_utf8(path.c_str(), "rb", 3));
  return file != nullptr;
}

bool read_whole_file(const std::string& path, std::string& bytes) {
  std::unique_ptr<FILE, file_closer_t> file(fopen_utf8(path.c_str(), "rb", sizeof "rb"));
  if (!file) return false;
  bytes.clear();
  char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0) bytes.append(buffer, n);
  return !std::ferror(file.get());
}

uint64_t file_size(const std::string& path) {
  uint64_t size = 0;
  return platform::query_file_size(path.c_str(), size) ? size : 0;
}

bool move_file(const std::string& source, const std::string& target) {
  return platform::replace_file(source.c_str(), target.c_str());
}

void remove_download(const std::string& path, const std::string& version) {
  remove_partial_download(path, version);
  platform::remove_file(path.c_str());
}

void remove_partial_download(const std::string& path, const std::string& version) {
  for (const std::string& name : {download_name(path, version), patch_name(path, version), patched_name(path, version)})
    platform::remove_file(name.c_str());
}

std::string download_name(const std::string& path, const std::string& version) {
  return path + ".download." + version;
}

std::string patch_name(const std::string& path, const std::string& version) {
  return download_name(path, version) + ".patch";
}

std::string patched_name(const std::string& path, const std::string& version) {
  return download_name(path, version) + ".patched";
}

std::string without_trailing_separators(std::string_view text, size_t most) {
  size_t end = text.size();
  while (end > 0 && most > 0 && (text[end - 1] == '\\' || text[end - 1] == '/')) {
    --end;
    --most;
  }
  return std::string(end == 0 ? text : text.substr(0, end));
}

std::string backup_name(const std::string& path) { return path + ".bak"; }

void hex_text(const unsigned char* bytes, size_t count, std::string& text, char separator) {
  static const char digits[] = "0123456789ABCDEF";
  if (count == 0 || !bytes) return;
  text.reserve(text.size() + count * (separator ? 3 : 2));
  for (size_t i = 0; i < count; ++i) {
    if (i && separator) text += separator;
    text += digits[bytes[i] >> 4];
    text += digits[bytes[i] & 0x0F];
  }
}

atomic_write_t write_file_atomically(const std::string& path, std::initializer_list<std::string_view> parts) {
  const std::string companion = backup_name(path);
  // Made anew: a link, or anything else left at the name, is not written through.
  platform::remove_file(companion.c_str());
  FILE* file = platform::open_file(companion.c_str(), "wb", false);
  if (!file) return atomic_write_t::not_opened;
  bool written = true;
  for (std::string_view part : parts) {
    if (!part.empty() && std::fwrite(part.data(), 1, part.size(), file) != part.size()) {
      written = false;
      break;
    }
  }
  written = written && platform::sync_file(file);
  written = std::fclose(file) == 0 && written;
  // A short companion must never take the place of a whole status file.
  if (!written) return atomic_write_t::not_written;
  return platform::replace_file(companion.c_str(), path.c_str()) ? atomic_write_t::done
                                                                 : atomic_write_t::not_replaced;
}

}  // namespace update
