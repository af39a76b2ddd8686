#include "platform/file_ops.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sysmacros.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>

namespace update::platform {

const char path_separator = '/';
const char* const path_separator_text = "/";

file_faults_t& file_faults() {
  static file_faults_t faults;
  return faults;
}

namespace {

struct open_mode_t {
  bool valid = false;
  bool writes = false;
  bool truncate = false;
  int flags = 0;
  const char* stdio_mode = nullptr;  // what fdopen is given
};

open_mode_t parse_mode(const char* mode) {
  open_mode_t m;
  if (!mode || !*mode) return m;
  bool plus = false;
  for (const char* c = mode + 1; *c; ++c)
    if (*c == '+') plus = true;
  switch (mode[0]) {
    case 'r':
      m.flags = plus ? O_RDWR : O_RDONLY;
      m.stdio_mode = plus ? "r+b" : "rb";
      break;
    case 'w':
      m.flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT;
      m.truncate = true;
      m.stdio_mode = plus ? "w+b" : "wb";
      break;
    case 'a':
      m.flags = (plus ? O_RDWR : O_WRONLY) | O_CREAT | O_APPEND;
      m.stdio_mode = plus ? "a+b" : "ab";
      break;
    default: return m;
  }
  m.valid = true;
  m.writes = mode[0] != 'r' || plus;
  return m;
}

// Closes a descriptor without disturbing the errno the caller reports.
void close_keeping_errno(int fd) {
  int saved = errno;
  ::close(fd);
  errno = saved;
}

// Truncating a file that is already empty is not free: ext4 then treats the
// next close as the end of a replace-by-truncate and flushes the whole file.
bool truncate_if_not_empty(int fd) {
  struct stat st;
  if (::fstat(fd, &st) == 0 && st.st_size == 0) return true;
  return ::ftruncate(fd, 0) == 0;
}

std::atomic<uint64_t> sync_counter{0};

std::string directory_of(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

// Some file systems cannot sync a directory or a file (EINVAL); what they
// keep is as lasting as they allow, which is not a failure of ours.
bool sync_descriptor(int fd, bool data_only) {
  sync_counter.fetch_add(1, std::memory_order_relaxed);
  return (data_only ? ::fdatasync(fd) : ::fsync(fd)) == 0 || errno == EINVAL;
}

int open_retrying(const char* path, int flags, ::mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path, flags, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// A writer's descriptor: never through a link at the last component, nor
// to a regular file with a second name. A new file is created exclusively;
// O_NONBLOCK keeps a FIFO without a reader from holding the open for ever.
int open_for_writing(const char* path, int flags) {
  const bool create = (flags & O_CREAT) != 0;
  const int base = (flags & ~O_CREAT) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
  int fd = -1;
  for (int attempt = 0; attempt < 4; ++attempt) {
    if (create) {
      fd = open_retrying(path, base | O_CREAT | O_EXCL, 0666);
      if (fd >= 0 || errno != EEXIST) break;
    }
    fd = open_retrying(path, base);
    if (fd >= 0 || !create || errno != ENOENT) break;  // gone meanwhile: create it after all
  }
  if (fd < 0) return -1;
  struct stat st;
  int cause = 0;
  if (::fstat(fd, &st) != 0)
    cause = errno;
  else if (S_ISREG(st.st_mode) && st.st_nlink > 1)
    cause = EMLINK;
  else if (::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
    cause = errno;
  if (cause == 0) return fd;
  ::close(fd);
  errno = cause;
  return -1;
}

// Who holds a flock on the object st describes, as /proc/locks tells
// ("1: FLOCK  ADVISORY  WRITE PID MAJOR:MINOR:INODE 0 EOF"); 0 if it does not.
long flock_holder(const struct stat& st) {
  char object[64];
  std::snprintf(object, sizeof object, "%02x:%02x:%lu", major(st.st_dev), minor(st.st_dev),
                static_cast<unsigned long>(st.st_ino));
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    std::istringstream words(line);
    std::string number, kind, advisory, access, pid, where;
    if (words >> number >> kind >> advisory >> access >> pid >> where && kind == "FLOCK" && where == object)
      return std::strtol(pid.c_str(), nullptr, 10);
  }
  return 0;
}

}  // namespace

FILE* open_file(const char* path, const char* mode, bool deny_write) {
  open_mode_t m = parse_mode(mode);
  if (!path || !m.valid) {
    errno = EINVAL;
    return nullptr;
  }
  if (m.writes && file_faults().fail_open_write) {
    errno = EACCES;
    return nullptr;
  }
  const bool lock = deny_write && m.writes;
  const int fd = m.writes ? open_for_writing(path, m.flags) : open_retrying(path, m.flags | O_CLOEXEC);
  if (fd < 0) return nullptr;
  if (!m.writes) {
    struct stat st;
    if (::fstat(fd, &st) != 0) {
      close_keeping_errno(fd);
      return nullptr;
    }
    if (S_ISDIR(st.st_mode)) {
      ::close(fd);
      errno = EISDIR;
      return nullptr;
    }
  }
  // With a lock, truncation waits until the lock is ours, so that a refused
  // open leaves the holder's data alone.
  if ((lock && ::flock(fd, LOCK_EX | LOCK_NB) != 0) || (m.truncate && !truncate_if_not_empty(fd))) {
    close_keeping_errno(fd);
    return nullptr;
  }
  FILE* file = ::fdopen(fd, m.stdio_mode);
  if (!file) close_keeping_errno(fd);
  return file;
}

bool query_file_size(const char* path, uint64_t& size) {
  struct stat st;
  if (!path || ::stat(path, &st) != 0) return false;
  size = S_ISREG(st.st_mode) ? static_cast<uint64_t>(st.st_size) : 0;
  return true;
}

bool path_exists(const char* path) {
  struct stat st;
  return path && ::stat(path, &st) == 0;
}

bool truncate_file(FILE* file, uint64_t size) {
  if (!file || size > static_cast<uint64_t>(INT64_MAX)) {
    errno = EINVAL;
    return false;
  }
  if (file_faults().fail_truncate) {
    errno = EIO;
    return false;
  }
  if (std::fflush(file) != 0) return false;
  int rc;
  do {
    rc = ::ftruncate(::fileno(file), static_cast<off_t>(size));
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

bool sync_file(FILE* file) {
  if (!file) {
    errno = EINVAL;
    return false;
  }
  if (std::fflush(file) != 0) return false;
  if (file_faults().fail_sync) {
    errno = ENOSPC;
    return false;
  }
  return sync_descriptor(::fileno(file), true);
}

bool sync_path(const char* path) {
  if (file_faults().fail_sync) {
    errno = ENOSPC;
    return false;
  }
  const int fd = path ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) return false;
  const bool ok = sync_descriptor(fd, true);
  close_keeping_errno(fd);
  return ok;
}

void start_writeback(const char* path) {
  const int fd = path ? ::open(path, O_RDONLY | O_CLOEXEC) : -1;
  if (fd < 0) return;
  // Handing a large file to the disk blocks while the device's queue is
  // full, so a thread of its own does it and the caller goes on at once.
  try {
    std::thread([fd] {
      ::sync_file_range(fd, 0, 0, SYNC_FILE_RANGE_WRITE);
      ::close(fd);
    }).detach();
  } catch (const std::system_error&) {
    ::close(fd);  // no thread to spare: a later sync does all the work
  }
}

void start_writeback(FILE* file) {
  if (file) ::sync_file_range(::fileno(file), 0, 0, SYNC_FILE_RANGE_WRITE);
}

bool sync_directory_of(const char* path) {
  if (!path) return false;
  const int fd = ::open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = sync_descriptor(fd, false);
  close_keeping_errno(fd);
  return ok;
}

uint64_t syncs_done() { return sync_counter.load(std::memory_order_relaxed); }

bool replace_file(const char* source, const char* target) {
  if (!source || !target) {
    errno = EINVAL;
    return false;
  }
  if (file_faults().fail_replace) {
    errno = EIO;
    return false;
  }
  return ::rename(source, target) == 0;
}

bool remove_file(const char* path) { return path && ::unlink(path) == 0; }

bool make_directories(const char* path, unsigned mode) {
  if (!path || !*path) {
    errno = EINVAL;
    return false;
  }
  const std::string full(path);
  struct stat st;
  // Each prefix that ends before a separator, then the whole path.
  for (size_t end = full.find('/', 1);; end = full.find('/', end + 1)) {
    const std::string part = full.substr(0, end);
    if (!part.empty() && part.back() != '/' && ::mkdir(part.c_str(), static_cast<::mode_t>(mode)) != 0 &&
        errno != EEXIST)
      return false;
    if (end == std::string::npos) break;
  }
  return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

bool lock_directory(const char* path, long& holder) {
  holder = 0;
  static std::mutex lock;
  // flock belongs to the open file: a second open in this process would
  // conflict with the first, hence the table of what is held. The
  // descriptors that hold the locks stay open for the process's life.
  static auto& held = *new std::set<std::pair<dev_t, ino_t>>;  // guarded by lock
  std::lock_guard<std::mutex> hold(lock);
  const int fd = path ? open_retrying(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  if (fd < 0) return false;
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    close_keeping_errno(fd);
    return false;
  }
  if (held.count({st.st_dev, st.st_ino}) != 0) {
    ::close(fd);
    return true;
  }
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int cause = errno;
    if (cause == EWOULDBLOCK) holder = flock_holder(st);
    ::close(fd);
    errno = cause;
    return false;
  }
  held.insert({st.st_dev, st.st_ino});
  return true;
}

}  // namespace update::platform
