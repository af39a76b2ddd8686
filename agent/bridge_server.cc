// The daemon's end of the command bridge: the listener registry, the socket
// server with one thread per client, and notifications to the client.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <list>
#include <memory>
#include <mutex>
#include <poll.h>
#include <shared_mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "agent/bridge.h"
#include "platform/agent_paths.h"
#include "platform/command_bridge.h"
#include "platform/log.h"

namespace agent {

namespace {

struct connection_t {
  explicit connection_t(int fd, uint64_t number) : fd(fd), number(number) {}
  ~connection_t() { ::close(fd); }
  connection_t(const connection_t&) = delete;
  connection_t& operator=(const connection_t&) = delete;

  const int fd;
  const uint64_t number;
  std::mutex write_lock;  // one frame at a time on the socket
  std::thread reader;     // joined by the acceptor or by stop_bridge
  bool gone = false;      // guarded by bridge_t::lock
};

// The one notification under way.
struct pending_answer_t {
  std::shared_ptr<connection_t> target;
  uint32_t serial = 0;
  bool answered = false;
  bool accepted = false;
  std::string body;
};

struct bridge_t {
  std::mutex control_lock;  // serialises start and stop
  std::mutex lock;
  std::condition_variable changed;  // an answer came, a client went, or stop
  std::list<std::shared_ptr<connection_t>> connections;  // guarded by lock
  pending_answer_t* pending = nullptr;                    // guarded by lock
  bool stopping = false;                                  // guarded by lock
  uint64_t next_number = 1;                               // guarded by lock
  uint32_t next_serial = 1;                               // guarded by lock
  notification_answerer_t local;                          // guarded by lock
  std::mutex notify_lock;  // one notification at a time
  int listen_fd = -1;
  int wake_pipe[2] = {-1, -1};
  std::string path;
  std::thread acceptor;
};

struct listeners_t {
  std::shared_mutex lock;  // shared by calls, exclusive for changes
  std::vector<CommandListener*> list;
};

// Never destroyed: client threads may outlive static destructors.
bridge_t& bridge() {
  static bridge_t& b = *new bridge_t;
  return b;
}

listeners_t& listeners() {
  static listeners_t& l = *new listeners_t;
  return l;
}

void log_notice(const std::string& text) {
  TLogMessage log(log_id_notice);
  log.append_attr(log_attr_text, "bridge").append_attr(log_attr_text, text);
}

bool dispatch_command(uint64_t client, uint32_t code, const std::string& request, std::string& reply) {
  std::shared_lock<std::shared_mutex> hold(listeners().lock);
  bool result = false;
  for (CommandListener* listener : listeners().list) {
    try {
      if (listener->on_command(client, code, request, reply)) result = true;
    } catch (const char* text) {
      log_notice("command " + std::to_string(code) + " failed: " + (text ? text : ""));
    } catch (...) {
      log_notice("command " + std::to_string(code) + " failed");
    }
  }
  return result;
}

void tell_listeners(void (CommandListener::*what)(uint64_t), uint64_t client) {
  std::shared_lock<std::shared_mutex> hold(listeners().lock);
  for (CommandListener* listener : listeners().list) (listener->*what)(client);
}

void serve_client(std::shared_ptr<connection_t> connection) {
  bridge_t& b = bridge();
  tell_listeners(&CommandListener::on_client_connected, connection->number);
  for (;;) {
    frame_t frame;
    const frame_read_t got = read_frame(connection->fd, frame);
    if (got == frame_read_t::closed) break;
    if (got == frame_read_t::bad || frame.type == frame_command_reply || frame.type == frame_notification) {
      log_notice("client " + std::to_string(connection->number) + " dropped: malformed frame");
      break;
    }
    if (frame.type == frame_answer) {
      std::lock_guard<std::mutex> hold(b.lock);
      // An answer nobody waits for any more is dropped quietly.
      if (b.pending && b.pending->target == connection && b.pending->serial == frame.serial) {
        b.pending->answered = true;
        b.pending->accepted = frame.value == 1;
        b.pending->body = std::move(frame.body);
        b.changed.notify_all();
      }
      continue;
    }
    frame_t reply{frame_command_reply, frame.serial, 0, {}};
    reply.value = dispatch_command(connection->number, frame.value, frame.body, reply.body) ? 1 : 0;
    if (reply.body.size() > frame_body_limit) reply = {frame_command_reply, frame.serial, 0, {}};
    std::lock_guard<std::mutex> hold(connection->write_lock);
    if (!write_frame(connection->fd, reply)) break;
  }
  ::shutdown(connection->fd, SHUT_RDWR);
  {
    std::lock_guard<std::mutex> hold(b.lock);
    connection->gone = true;
    b.changed.notify_all();
  }
  tell_listeners(&CommandListener::on_client_disconnected, connection->number);
}

// Joins the threads of clients that have gone. REQUIRES: control of the
// connection list's threads (the acceptor, or stop after it ended).
void reap_connections(bool all) {
  bridge_t& b = bridge();
  std::list<std::shared_ptr<connection_t>> done;
  {
    std::lock_guard<std::mutex> hold(b.lock);
    for (auto it = b.connections.begin(); it != b.connections.end();) {
      if (all || (*it)->gone) {
        done.push_back(*it);
        it = b.connections.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto& c : done)
    if (c->reader.joinable()) c->reader.join();
}

void accept_clients() {
  bridge_t& b = bridge();
  for (;;) {
    pollfd ready[2] = {{b.listen_fd, POLLIN, 0}, {b.wake_pipe[0], POLLIN, 0}};
    if (::poll(ready, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (ready[1].revents != 0) return;
    reap_connections(false);
    const int fd = ::accept4(b.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> hold(b.lock);
    auto connection = std::make_shared<connection_t>(fd, b.next_number++);
    connection->reader = std::thread(serve_client, connection);
    b.connections.push_back(std::move(connection));
  }
}

// The id of the group called name; false when there is none.
bool group_id(const std::string& name, gid_t& id) {
  std::vector<char> buffer(16384);
  group entry{};
  group* found = nullptr;
  if (::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  id = found->gr_gid;
  return true;
}

// Owner-only, or shared with the members of group (gid) when one is named.
bool set_access(const std::string& path, const std::string& group, gid_t gid) {
  if (group.empty()) return ::chmod(path.c_str(), S_IRUSR | S_IWUSR) == 0;
  return ::chown(path.c_str(), static_cast<uid_t>(-1), gid) == 0 &&
         ::chmod(path.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP) == 0;
}

// Binds path, replacing a socket file no server answers on any more.
int bind_socket(const std::string& path, const std::string& group, std::string& error) {
  gid_t gid = 0;
  if (!group.empty() && !group_id(group, gid)) {
    error = "unknown group " + group + " for the socket " + path;
    return -1;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    error = "socket path empty or too long: " + path;
    return -1;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const std::string dir = path.substr(0, path.rfind('/'));
  if (!dir.empty()) agent_fs_mkdir_if_not_exist_rwx_usr(dir);
  struct stat st;
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      error = path + " exists and is not a socket";
      return -1;
    }
    bridge_client_t probe;
    std::string ignored;
    if (probe.connect(path, ignored)) {
      error = "another server answers on " + path;
      return -1;
    }
    ::unlink(path.c_str());
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    error = "cannot listen on " + path + ": " + std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return -1;
  }
  // Until listen, nobody can connect, whatever the mode on the way.
  const bool shared = set_access(path, group, gid);
  if (!shared || ::listen(fd, 16) != 0) {
    const int code = errno;
    error = (shared || group.empty() ? "cannot listen on " + path : "cannot give " + path + " to group " + group) +
            ": " + std::strerror(code);
    ::close(fd);
    ::unlink(path.c_str());
    return -1;
  }
  return fd;
}

}  // namespace

bool start_bridge(const std::string& path, std::string& error, const std::string& group) {
  bridge_t& b = bridge();
  std::lock_guard<std::mutex> control(b.control_lock);
  if (b.listen_fd >= 0) {
    error = "the bridge is already serving " + b.path;
    return false;
  }
  const int fd = bind_socket(path, group, error);
  if (fd < 0) return false;
  if (::pipe2(b.wake_pipe, O_CLOEXEC) != 0) {
    error = std::string("cannot make a pipe: ") + std::strerror(errno);
    ::close(fd);
    ::unlink(path.c_str());
    return false;
  }
  {
    std::lock_guard<std::mutex> hold(b.lock);
    b.stopping = false;
  }
  b.listen_fd = fd;
  b.path = path;
  b.acceptor = std::thread(accept_clients);
  return true;
}

void stop_bridge() {
  bridge_t& b = bridge();
  std::lock_guard<std::mutex> control(b.control_lock);
  if (b.listen_fd < 0) return;
  (void)!::write(b.wake_pipe[1], "x", 1);
  b.acceptor.join();
  {
    std::lock_guard<std::mutex> hold(b.lock);
    b.stopping = true;
    for (auto& c : b.connections) ::shutdown(c->fd, SHUT_RDWR);
    b.changed.notify_all();
  }
  reap_connections(true);
  {
    std::shared_lock<std::shared_mutex> hold(listeners().lock);
    for (CommandListener* listener : listeners().list) listener->on_bridge_stopping();
  }
  ::close(b.listen_fd);
  ::close(b.wake_pipe[0]);
  ::close(b.wake_pipe[1]);
  ::unlink(b.path.c_str());
  b.listen_fd = -1;
  b.wake_pipe[0] = b.wake_pipe[1] = -1;
}

void set_local_client(notification_answerer_t answerer) {
  std::lock_guard<std::mutex> hold(bridge().lock);
  bridge().local = std::move(answerer);
}

}  // namespace agent

void AddCommandListener(CommandListener* listener) {
  {
    std::unique_lock<std::shared_mutex> hold(agent::listeners().lock);
    auto& list = agent::listeners().list;
    for (CommandListener* known : list)
      if (known == listener) return;
    list.push_back(listener);
  }
  listener->on_added();
}

void DelCommandListener(CommandListener* listener) {
  {
    std::unique_lock<std::shared_mutex> hold(agent::listeners().lock);
    auto& list = agent::listeners().list;
    bool found = false;
    for (auto it = list.begin(); it != list.end(); ++it) {
      if (*it == listener) {
        list.erase(it);
        found = true;
        break;
      }
    }
    if (!found) return;
  }
  listener->on_removed();
}

namespace bridge::server {

bool NotifyClientAndWaitResponse(NotificationIdType id, std::string& body, long timeout) {
  agent::bridge_t& b = agent::bridge();
  std::lock_guard<std::mutex> one_at_a_time(b.notify_lock);
  agent::pending_answer_t pending;
  {
    std::unique_lock<std::mutex> hold(b.lock);
    if (b.local) {
      agent::notification_answerer_t local = b.local;
      hold.unlock();
      return local(id, body);
    }
    // The latest client to connect is the one in front of the user.
    for (auto it = b.connections.rbegin(); it != b.connections.rend(); ++it)
      if (!(*it)->gone) {
        pending.target = *it;
        break;
      }
    if (!pending.target || b.stopping) return false;
    pending.serial = b.next_serial++;
    b.pending = &pending;
  }
  bool sent;
  {
    std::lock_guard<std::mutex> hold(pending.target->write_lock);
    sent = agent::write_frame(pending.target->fd, {agent::frame_notification, pending.serial, id, body});
  }
  std::unique_lock<std::mutex> hold(b.lock);
  auto settled = [&] { return !sent || pending.answered || pending.target->gone || b.stopping; };
  if (timeout < 0) {
    b.changed.wait(hold, settled);
  } else {
    b.changed.wait_for(hold, std::chrono::milliseconds(timeout), settled);
  }
  b.pending = nullptr;
  if (!pending.answered || !pending.accepted) return false;
  body = std::move(pending.body);
  return true;
}

}  // namespace bridge::server
