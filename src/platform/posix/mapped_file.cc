#include "platform/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace update::platform {

mapped_file_t::~mapped_file_t() { unmap(); }

void mapped_file_t::unmap() {
  if (data_) ::munmap(const_cast<unsigned char*>(data_), static_cast<size_t>(size_));
  data_ = nullptr;
  size_ = 0;
}

bool mapped_file_t::map(const char* path) {
  unmap();
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<uint64_t>(st.st_size) <= SIZE_MAX;
  if (ok && st.st_size > 0) {
    void* bytes = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
    ok = bytes != MAP_FAILED;
    if (ok) {
      data_ = static_cast<const unsigned char*>(bytes);
      size_ = static_cast<uint64_t>(st.st_size);
    }
  }
  ::close(fd);
  return ok;
}

}  // namespace update::platform
