#include "platform/exposure.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace update::platform {

namespace {

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string directory_of(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// One object of a path: its owner must be root or the caller, and no one
// else may write it; a directory on the way may be shared if it is sticky.
exposure_report_t examine(const std::string& path, bool on_the_way) {
  exposure_report_t report;
  report.path = path;
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) {
    report.kind = exposure_t::unexamined;
    report.error = errno;
    return report;
  }
  report.owner = st.st_uid;
  report.mode = st.st_mode & 07777;
  const bool shared_sticky = on_the_way && S_ISDIR(st.st_mode) && (st.st_mode & S_ISVTX) != 0;
  if (st.st_uid != 0 && st.st_uid != ::geteuid())
    report.kind = exposure_t::foreign_owner;
  else if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0 && !shared_sticky)
    report.kind = exposure_t::others_write;
  return report;
}

}  // namespace

exposure_report_t directory_exposure(const char* path) {
  exposure_report_t report;
  if (!path || !*path) {
    report.kind = exposure_t::unexamined;
    report.error = EINVAL;
    return report;
  }
  std::string full = path;
  if (full[0] != '/') {
    char here[PATH_MAX];
    if (!::getcwd(here, sizeof here)) {
      report.kind = exposure_t::unexamined;
      report.error = errno;
      return report;
    }
    full = std::string(here) + "/" + full;
  }
  // What does not exist yet will be made inside the nearest that does.
  struct stat st;
  bool self = true;
  while (::stat(full.c_str(), &st) != 0) {
    if (errno != ENOENT || full == "/") return examine(full, false);
    full = directory_of(without_trailing_slashes(full));
    self = false;
  }
  char* resolved = ::realpath(full.c_str(), nullptr);
  if (!resolved) {
    report.path = full;
    report.kind = exposure_t::unexamined;
    report.error = errno;
    return report;
  }
  const std::string real(resolved);
  std::free(resolved);
  for (const std::string& chain : {without_trailing_slashes(full), without_trailing_slashes(real)}) {
    // "/", then each longer prefix up to the whole path.
    report = examine("/", !(self && chain == "/"));
    for (size_t end = 2; end <= chain.size() && report.kind == exposure_t::none; ++end) {
      if ((end < chain.size() && chain[end] != '/') || chain[end - 1] == '/') continue;
      report = examine(chain.substr(0, end), !(self && end == chain.size()));
    }
    if (report.kind != exposure_t::none) return report;
  }
  return report;
}

exposure_report_t file_exposure(const char* path) { return examine(path ? path : "", false); }

std::string exposure_text(const exposure_report_t& report) {
  char text[PATH_MAX + 128];
  const char* path = report.path.c_str();
  switch (report.kind) {
    case exposure_t::none:
      return "";
    case exposure_t::foreign_owner:
      std::snprintf(text, sizeof text, "%s belongs to user %u, not to root or to this process's user", path,
                    report.owner);
      break;
    case exposure_t::others_write:
      std::snprintf(text, sizeof text, "%s may be written by others than its owner (mode %04o)", path, report.mode);
      break;
    case exposure_t::unexamined:
    {
      char reason[256];
      // GNU strerror_r: the text may or may not be in the buffer.
      std::snprintf(text, sizeof text, "%s cannot be examined: %s", path, strerror_r(report.error, reason, sizeof reason));
    }
      break;
  }
  return text;
}

}  // namespace update::platform
