// Frames of the command bridge, and a client's end of a connection.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "agent/bridge.h"
#include "platform/agent_paths.h"
#include "platform/exposure.h"

namespace agent {

namespace {

int64_t now_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

void put_u32(char* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<char>((value >> (8 * i)) & 0xff);
}

uint32_t get_u32(const char* at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(static_cast<unsigned char>(at[i])) << (8 * i);
  return value;
}

// 0 read everything, 1 clean end before the first byte, -1 cut, failed or
// late. deadline_ms is when the rest must have come, once a byte came: set
// on the first byte when it is 0, never when limit_ms is negative.
int read_all(int fd, char* data, size_t size, int limit_ms, int64_t& deadline_ms) {
  size_t got = 0;
  while (got < size) {
    if (deadline_ms != 0) {
      const int64_t left = deadline_ms - now_ms();
      pollfd ready{fd, POLLIN, 0};
      const int n = left > 0 ? ::poll(&ready, 1, static_cast<int>(left)) : 0;
      if (n == 0) return -1;
      if (n < 0 && errno != EINTR) return -1;
      if (n < 0) continue;
    }
    const ssize_t n = ::read(fd, data + got, size - got);
    if (n > 0) {
      got += static_cast<size_t>(n);
      if (deadline_ms == 0 && limit_ms >= 0) deadline_ms = now_ms() + limit_ms;
    } else if (n == 0) {
      return got == 0 && deadline_ms == 0 ? 1 : -1;
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return 0;
}

// Why the socket's permissions refuse this user: the group that may connect,
// or none when the socket is owner-only.
std::string refusal_reason(const std::string& path) {
  struct stat st;
  if (::stat(path.c_str(), &st) != 0) return "";
  if ((st.st_mode & S_IWGRP) == 0) return " (the socket is its owner's only)";
  return "; the user must be a member of the group \"" + group_name(st.st_gid) +
         "\" that owns the socket (and log in again after joining it)";
}

}  // namespace

bool group_id(const std::string& name, gid_t& id) {
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  id = found->gr_gid;
  return true;
}

std::string group_name(gid_t id) {
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  if (::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return std::to_string(id);
  return found->gr_name;
}

bool user_in_group(uid_t uid, gid_t gid) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  if (found->pw_gid == gid) return true;
  int count = 64;
  std::vector<gid_t> groups(static_cast<size_t>(count));
  if (::getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
    groups.resize(static_cast<size_t>(count));
    if (::getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) return false;
  }
  groups.resize(static_cast<size_t>(count));
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

frame_read_t read_frame(int fd, frame_t& frame, int limit_ms) {
  char header[frame_header_size];
  int64_t deadline_ms = 0;
  const int got = read_all(fd, header, sizeof header, limit_ms, deadline_ms);
  if (got == 1) return frame_read_t::closed;
  if (got != 0) return frame_read_t::bad;
  frame.type = get_u32(header);
  frame.serial = get_u32(header + 4);
  frame.value = get_u32(header + 8);
  const uint32_t length = get_u32(header + 12);
  if (frame.type < frame_command || frame.type > frame_refusal || length > frame_body_limit) return frame_read_t::bad;
  frame.body.resize(length);
  if (length != 0 && read_all(fd, frame.body.data(), length, limit_ms, deadline_ms) != 0) return frame_read_t::bad;
  return frame_read_t::ok;
}

bool write_frame(int fd, const frame_t& frame) {
  if (frame.body.size() > frame_body_limit) return false;
  std::string bytes(frame_header_size, '\0');
  put_u32(bytes.data(), frame.type);
  put_u32(bytes.data() + 4, frame.serial);
  put_u32(bytes.data() + 8, frame.value);
  put_u32(bytes.data() + 12, static_cast<uint32_t>(frame.body.size()));
  bytes += frame.body;
  size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n > 0) {
      sent += static_cast<size_t>(n);
    } else if (n < 0 && errno != EINTR) {
      return false;
    }
  }
  return true;
}

std::string default_socket_path() {
  std::string dir = systemVarDir();
  if (dir.empty()) return "";  // no agent root: never a name in the current directory
  if (dir.back() != '/') dir += '/';
  return dir + "corvid_bridge.sock";
}

std::vector<std::string> way_to(const std::string& dir) {
  char* resolved = ::realpath(dir.c_str(), nullptr);
  if (!resolved) return {};
  std::vector<std::string> way{"/"};
  for (const char* at = std::strchr(resolved + 1, '/'); at; at = std::strchr(at + 1, '/'))
    way.emplace_back(resolved, static_cast<size_t>(at - resolved));
  if (resolved[1] != '\0') way.emplace_back(resolved);
  std::free(resolved);
  return way;
}

std::string unsafe_way(const std::string& named) {
  using namespace update::platform;
  // A link in the socket's place is followed by connect: judge where it leads.
  char* target = ::realpath(named.c_str(), nullptr);
  const std::string path = target ? target : named;
  std::free(target);
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  exposure_report_t report = directory_exposure(dir.c_str());
  if (report.kind == exposure_t::none) {
    // Of the socket itself only the owner counts: its group may write it by
    // design, and one not made yet is for bind or connect to report.
    report = file_exposure(path.c_str());
    if (report.kind != exposure_t::foreign_owner) report.kind = exposure_t::none;
  }
  return exposure_text(report);
}

bridge_client_t::~bridge_client_t() {
  if (fd_ >= 0) ::close(fd_);
}

bool bridge_client_t::connect(const std::string& path, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "socket path too long: " + path;
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const int code = errno;
    error = "cannot connect to " + path + ": " + std::strerror(code);
    if (code == EACCES) error += refusal_reason(path);
    if (code == ENOENT || code == ECONNREFUSED) error += " (is \"corvid-update serve\" running?)";
    if (fd >= 0) ::close(fd);
    return false;
  }
  const std::string unsafe = unsafe_way(path);
  ucred server{};
  socklen_t size = sizeof server;
  if (!unsafe.empty() || ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &server, &size) != 0 ||
      (server.uid != 0 && server.uid != ::geteuid())) {
    error = "refusing the socket " + path + ": " +
            (!unsafe.empty() ? unsafe
                             : "its server runs as uid " + std::to_string(server.uid) + ", neither root nor this user");
    ::close(fd);
    return false;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  return true;
}

bool bridge_client_t::answer_notification(const frame_t& frame, const notification_answerer_t& answer,
                                          std::string& error) {
  frame_t reply{frame_answer, frame.serial, 0, frame.body};
  if (answer && answer(frame.value, reply.body)) {
    reply.value = 1;
  } else {
    reply.body.clear();
  }
  if (write_frame(fd_, reply)) return true;
  error = "the daemon went away";
  return false;
}

bool bridge_client_t::exchange(const frame_t& out, frame_t& reply, const notification_answerer_t& answer,
                               std::string& error) {
  if (fd_ < 0 || !write_frame(fd_, out)) {
    error = "the daemon went away";
    return false;
  }
  for (;;) {
    const frame_read_t got = read_frame(fd_, reply);
    if (got != frame_read_t::ok) {
      error = got == frame_read_t::closed ? "the daemon went away" : "the daemon sent a malformed frame";
      return false;
    }
    if (reply.type == frame_notification) {
      if (!answer_notification(reply, answer, error)) return false;
      continue;
    }
    if (reply.type == frame_refusal && (reply.serial == out.serial || reply.serial == 0)) {
      error = reply.body;
      return false;
    }
    if (reply.type != frame_command_reply || reply.serial != out.serial) {
      error = "the daemon sent an unexpected frame";
      return false;
    }
    return true;
  }
}

bool bridge_client_t::call(uint32_t code, const std::string& request, bool& result, std::string& reply,
                           const notification_answerer_t& answer, std::string& error) {
  frame_t frame;
  if (!exchange({frame_command, next_serial_++, code, request}, frame, answer, error)) return false;
  result = frame.value == 1;
  reply = std::move(frame.body);
  return true;
}

bool bridge_client_t::offer_answers(std::string& error) {
  frame_t frame;
  return exchange({frame_answering, next_serial_++, 1, {}}, frame, nullptr, error);
}

bool bridge_client_t::wait(int milliseconds, const notification_answerer_t& answer, std::string& error) {
  pollfd ready{fd_, POLLIN, 0};
  const int n = ::poll(&ready, 1, milliseconds);
  if (n < 0) return errno == EINTR;
  if (n == 0) return true;
  frame_t frame;
  const frame_read_t got = read_frame(fd_, frame);
  if (got == frame_read_t::ok && frame.type == frame_refusal && frame.serial == 0) {
    error = frame.body;
    return false;
  }
  if (got != frame_read_t::ok || frame.type != frame_notification) {
    error = got == frame_read_t::closed ? "the daemon went away" : "the daemon sent a malformed frame";
    return false;
  }
  return answer_notification(frame, answer, error);
}

}  // namespace agent
