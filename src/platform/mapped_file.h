// A file's bytes mapped read-only into memory: a large file is read by the
// pages it touches, not copied into the heap. Paths are UTF-8 bytes.
#pragma once
#include <cstdint>

namespace update::platform {

// Owns one mapping, made by map and undone by the destructor. The bytes
// are the file's as the system shows them: a file another process cuts
// short while it is mapped makes reads past its new end fault, so map only
// files no one else writes. One thread at a time.
class mapped_file_t {
 public:
  mapped_file_t() = default;
  ~mapped_file_t();
  mapped_file_t(const mapped_file_t&) = delete;
  mapped_file_t& operator=(const mapped_file_t&) = delete;

  // Maps the regular file at path, replacing an earlier mapping; false if it
  // cannot be opened or mapped (nothing is mapped then). An empty file maps
  // to no bytes and a null data().
  bool map(const char* path);
  const unsigned char* data() const { return data_; }
  uint64_t size() const { return size_; }

 private:
  void unmap();

  const unsigned char* data_ = nullptr;
  uint64_t size_ = 0;
};

}  // namespace update::platform
