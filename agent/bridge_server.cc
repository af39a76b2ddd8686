// The daemon's end of the command bridge: the listener registry, the socket
// server with one thread per client, and notifications to the client.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <memory>
#include <mutex>
#include <poll.h>
#include <shared_mutex>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
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

// Who is at the other end of a connection, as the socket tells.
struct peer_t {
  uid_t uid;
  pid_t pid;
  bool privileged;  // root or the daemon's own user: every command
  bool may_answer;  // privileged, or a member of the socket's group
};

struct connection_t {
  explicit connection_t(int fd, uint64_t number, const peer_t& peer) : fd(fd), number(number), peer(peer) {}
  ~connection_t() { ::close(fd); }
  connection_t(const connection_t&) = delete;
  connection_t& operator=(const connection_t&) = delete;

  const int fd;
  const uint64_t number;
  const peer_t peer;
  std::mutex write_lock;  // one frame at a time on the socket; taken before bridge_t::lock, never inside it
  std::thread reader;     // joined by the acceptor or by stop_bridge
  bool gone = false;      // guarded by bridge_t::lock
  uint64_t answering = 0;  // guarded by bridge_t::lock; when it offered answers, 0 never
};

// The one notification under way.
struct pending_answer_t {
  NotificationIdType id{};
  const std::string* sent = nullptr;
  bridge::server::AnswerCheck check = nullptr;
  std::shared_ptr<connection_t> target;
  uint32_t serial = 0;
  bool answered = false;
  bool accepted = false;
  bool malformed = false;  // the target answered something unreadable and is dropped
  std::string body;
};

struct bridge_t {
  std::mutex control_lock;  // serialises start and stop
  std::mutex lock;
  std::condition_variable changed;  // an answer came, a client came or went, or stop
  std::list<std::shared_ptr<connection_t>> connections;  // guarded by lock
  pending_answer_t* pending = nullptr;                    // guarded by lock
  bool stopping = false;                                  // guarded by lock
  uint64_t next_number = 1;                               // guarded by lock
  uint32_t next_serial = 1;                               // guarded by lock
  uint64_t next_offer = 1;                                // guarded by lock
  notification_answerer_t local;                          // guarded by lock
  long answer_limit_ms = default_answer_limit_s * 1000L;  // guarded by lock
  std::mutex notify_lock;  // one notification at a time
  // Set by start_bridge before the acceptor runs, read-only after.
  int listen_fd = -1;
  int wake_pipe[2] = {-1, -1};
  std::string path;
  std::string group;
  gid_t group_gid = 0;
  std::vector<uint32_t> open_codes;
  bridge_limits_t limits;
  std::thread acceptor;
};

// How long the acceptor pauses when the system has no descriptor left.
constexpr int accept_pause_ms = 100;

constexpr const char* commands_need_root = "not permitted: commands need root";

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

// A refusal on the wire: of the frame of serial, or of the connection (0).
void refuse(connection_t& connection, uint32_t serial, const std::string& why) {
  std::lock_guard<std::mutex> hold(connection.write_lock);
  write_frame(connection.fd, {frame_refusal, serial, 0, why});
}

std::string client_name(const connection_t& connection) {
  return "client " + std::to_string(connection.number) + " (uid " + std::to_string(connection.peer.uid) + ", pid " +
         std::to_string(connection.peer.pid) + ")";
}

// Garbage from connection, which is about to be dropped: a question it was
// asked stays open for a proper answer from another. REQUIRES: b.lock held.
void mark_malformed(bridge_t& b, const std::shared_ptr<connection_t>& connection) {
  connection->answering = 0;
  if (b.pending && b.pending->target == connection && !b.pending->answered) b.pending->malformed = true;
  b.changed.notify_all();
}

// An answer frame from connection. False when it was an unreadable answer
// to the pending notification: the client is then dropped.
bool take_answer(const std::shared_ptr<connection_t>& connection, frame_t& frame) {
  bridge_t& b = bridge();
  std::lock_guard<std::mutex> hold(b.lock);
  pending_answer_t* pending = b.pending;
  // An answer nobody waits for any more is dropped quietly.
  if (!pending || pending->target != connection || pending->serial != frame.serial || pending->answered) return true;
  if (frame.value == 1 && pending->check && !pending->check(pending->id, *pending->sent, frame.body)) {
    mark_malformed(b, connection);
    return false;
  }
  pending->answered = true;
  pending->accepted = frame.value == 1;
  pending->body = std::move(frame.body);
  b.changed.notify_all();
  return true;
}

void offer_answers(const std::shared_ptr<connection_t>& connection, const frame_t& frame) {
  bridge_t& b = bridge();
  if (!connection->peer.may_answer) {
    log_notice(client_name(*connection) + " may not answer notifications");
    refuse(*connection, frame.serial,
           "not permitted: only root, the daemon's user" +
               (b.group.empty() ? std::string() : " or the group " + b.group) + " answer the update's questions");
    return;
  }
  // The offer counts and its reply goes out under the connection's write
  // lock: a question for this client is written only behind the reply (a
  // client still waiting for it would decline the question), and one sent
  // once the client has the reply goes to it.
  std::lock_guard<std::mutex> write(connection->write_lock);
  {
    std::lock_guard<std::mutex> hold(b.lock);
    connection->answering = b.next_offer++;
    b.changed.notify_all();
  }
  write_frame(connection->fd, {frame_command_reply, frame.serial, 1, {}});
}

bool may_send(const connection_t& connection, uint32_t code) {
  const auto& open = bridge().open_codes;
  return connection.peer.privileged || std::find(open.begin(), open.end(), code) != open.end();
}

void serve_client(std::shared_ptr<connection_t> connection) {
  bridge_t& b = bridge();
  tell_listeners(&CommandListener::on_client_connected, connection->number);
  for (;;) {
    frame_t frame;
    const frame_read_t got = read_frame(connection->fd, frame, b.limits.frame_ms);
    if (got == frame_read_t::closed) break;
    if (got == frame_read_t::bad || frame.type == frame_command_reply || frame.type == frame_notification ||
        frame.type == frame_refusal) {
      log_notice(client_name(*connection) + " dropped: malformed frame");
      std::lock_guard<std::mutex> hold(b.lock);
      mark_malformed(b, connection);
      break;
    }
    if (frame.type == frame_answer) {
      if (take_answer(connection, frame)) continue;
      log_notice(client_name(*connection) + " dropped: malformed answer to notification " +
                 std::to_string(frame.serial));
      break;
    }
    if (frame.type == frame_answering) {
      offer_answers(connection, frame);
      continue;
    }
    if (!may_send(*connection, frame.value)) {
      log_notice(client_name(*connection) + " refused: command " + std::to_string(frame.value) + " needs root");
      refuse(*connection, frame.serial, commands_need_root);
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
    connection->answering = 0;
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

peer_t peer_of(int fd) {
  bridge_t& b = bridge();
  // Nobody, unless the socket tells who it is.
  ucred cred{0, static_cast<uid_t>(-1), static_cast<gid_t>(-1)};
  socklen_t size = sizeof cred;
  ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &size);
  const bool privileged = cred.uid == 0 || cred.uid == ::geteuid();
  const bool member = !b.group.empty() && (cred.gid == b.group_gid || user_in_group(cred.uid, b.group_gid));
  return {cred.uid, cred.pid, privileged, privileged || member};
}

// Why a new connection from peer is turned away, or empty to take it: a
// peer that is neither root nor the daemon's user gets at most per_user
// places, and none of the last reserved ones. REQUIRES: b.lock held.
std::string over_limit(const bridge_t& b, const peer_t& peer) {
  const bridge_limits_t& limit = b.limits;
  size_t all = 0, same_user = 0;
  for (const auto& c : b.connections) {
    if (c->gone) continue;
    ++all;
    if (c->peer.uid == peer.uid) ++same_user;
  }
  if (all >= limit.connections) return "too many connections";
  if (!peer.privileged && (all >= limit.connections - limit.reserved || same_user >= limit.per_user))
    return "too many connections";
  return "";
}

void accept_clients() {
  bridge_t& b = bridge();
  bool told_exhausted = false;
  std::chrono::steady_clock::time_point last_refusal_logged{};
  uint64_t unlogged_refusals = 0;
  for (;;) {
    pollfd ready[2] = {{b.listen_fd, POLLIN, 0}, {b.wake_pipe[0], POLLIN, 0}};
    if (::poll(ready, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (ready[1].revents != 0) return;
    reap_connections(false);
    const int fd = ::accept4(b.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors or memory the listener stays readable: pause
      // rather than spin, and wake at once for a stop.
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        if (!told_exhausted) log_notice(std::string("accept failed: ") + std::strerror(errno));
        told_exhausted = true;
        pollfd wake{b.wake_pipe[0], POLLIN, 0};
        if (::poll(&wake, 1, accept_pause_ms) > 0) return;
      }
      continue;
    }
    told_exhausted = false;
    // A client that reads nothing is dropped rather than holding a writer,
    // the update worker's notification among them.
    const timeval send_limit{b.limits.send_s, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &send_limit, sizeof send_limit);
    const peer_t peer = peer_of(fd);
    std::shared_ptr<connection_t> connection;
    std::string refusal;
    {
      std::lock_guard<std::mutex> hold(b.lock);
      connection = std::make_shared<connection_t>(fd, b.next_number++, peer);
      refusal = over_limit(b, peer);
      if (refusal.empty()) {
        connection->reader = std::thread(serve_client, connection);
        b.connections.push_back(connection);
        continue;
      }
    }
    // A flood of refused peers gets one line a second, not one each. The
    // refusal is written outside the bridge's lock: that lock may be taken
    // inside a connection's write lock, never the other way round.
    const auto now = std::chrono::steady_clock::now();
    if (now - last_refusal_logged >= std::chrono::seconds(1)) {
      log_notice(client_name(*connection) + " refused: " + refusal +
                 (unlogged_refusals ? " (and " + std::to_string(unlogged_refusals) + " more before)" : ""));
      last_refusal_logged = now;
      unlogged_refusals = 0;
    } else {
      ++unlogged_refusals;
    }
    refuse(*connection, 0, refusal);
  }
}

// Whether members of the group gid can search dir: by its bits for others,
// or for its group when that is gid.
bool group_can_search(const std::string& dir, gid_t gid) {
  struct stat st;
  if (::stat(dir.c_str(), &st) != 0) return false;
  return (st.st_mode & S_IXOTH) != 0 || (st.st_gid == gid && (st.st_mode & S_IXGRP) != 0);
}

// The first directory on the way to a socket in dir that the group cannot
// search, or empty when its members can reach the socket.
std::string closed_to_group(const std::string& dir, gid_t gid) {
  const std::vector<std::string> way = way_to(dir);
  if (way.empty()) return dir;
  for (const auto& level : way)
    if (!group_can_search(level, gid)) return level;
  return "";
}

// Owner-only, or shared with the members of group (gid) when one is named.
// A link put in the socket's place is refused, never followed.
bool set_access(const std::string& path, const std::string& group, gid_t gid) {
  if (!group.empty() && ::fchownat(AT_FDCWD, path.c_str(), static_cast<uid_t>(-1), gid, AT_SYMLINK_NOFOLLOW) != 0)
    return false;
  const mode_t mode = group.empty() ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP;
  return ::fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0;
}

// Binds path, replacing a socket file no server answers on any more.
int bind_socket(const std::string& path, const std::string& group, gid_t& gid, std::string& error) {
  gid = 0;
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
  const size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  agent_fs_mkdir_if_not_exist_rwx_usr(dir);
  // Whoever could change the way could swap the socket for a link to a
  // file of root's, or put a server of their own in its place.
  const std::string unsafe = unsafe_way(path);
  if (!unsafe.empty()) {
    error = "refusing the socket " + path + ": " + unsafe;
    return -1;
  }
  // A socket the group may use is no use behind a directory it cannot pass.
  if (!group.empty()) {
    const std::string closed = closed_to_group(dir, gid);
    if (!closed.empty()) {
      error = "the group " + group + " cannot reach " + path + ": " + closed +
              " is closed to it (give --socket a path in a directory the group can search)";
      return -1;
    }
  }
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

bool start_bridge(const std::string& path, std::string& error, const std::string& group,
                  const std::vector<uint32_t>& open_codes, const bridge_limits_t& limits) {
  bridge_t& b = bridge();
  std::lock_guard<std::mutex> control(b.control_lock);
  if (b.listen_fd >= 0) {
    error = "the bridge is already serving " + b.path;
    return false;
  }
  b.group = group;
  b.open_codes = open_codes;
  b.limits = limits;
  const int fd = bind_socket(path, group, b.group_gid, error);
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
    b.answer_limit_ms = limits.answer_s * 1000L;
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

namespace {

// The client asked: the one that offered answers last, among those still
// connected. REQUIRES: bridge lock held.
std::shared_ptr<agent::connection_t> answering_client(const agent::bridge_t& b) {
  std::shared_ptr<agent::connection_t> chosen;
  for (const auto& c : b.connections)
    if (!c->gone && c->answering != 0 && (!chosen || c->answering > chosen->answering)) chosen = c;
  return chosen;
}

}  // namespace

NotifyOutcome NotifyClient(NotificationIdType id, std::string& body, long timeout, AnswerCheck check) {
  agent::bridge_t& b = agent::bridge();
  std::lock_guard<std::mutex> one_at_a_time(b.notify_lock);
  const std::string sent = body;
  std::unique_lock<std::mutex> hold(b.lock);
  if (b.local) {
    agent::notification_answerer_t local = b.local;
    hold.unlock();
    if (!local(id, body)) return NotifyOutcome::declined;
    return !check || check(id, sent, body) ? NotifyOutcome::answered : NotifyOutcome::declined;
  }
  // A client that offered and then keeps silent must not hold the worker.
  const std::chrono::milliseconds limit(timeout < 0 ? b.answer_limit_ms : timeout);
  auto deadline = std::chrono::steady_clock::now() + limit;
  // Waits until settled holds; false when the time ran out first.
  auto wait = [&](auto settled) { return b.changed.wait_until(hold, deadline, settled); };
  agent::pending_answer_t pending;
  pending.id = id;
  pending.sent = &sent;
  pending.check = check;
  // Root or the daemon's user, offering while the install question waits,
  // takes it over; an order to run a command stays where it may be running.
  auto taker = [&]() -> std::shared_ptr<agent::connection_t> {
    auto latest = answering_client(b);
    const bool takes = id == NotifyUpdateInstallQuestion && latest && latest != pending.target && latest->peer.privileged;
    return takes ? latest : nullptr;
  };
  bool reoffer = false;  // a client answered garbage: wait for a proper answer
  for (;;) {
    if (b.stopping) return NotifyOutcome::stopped;
    pending.target = answering_client(b);
    if (!pending.target) {
      if (!reoffer) return NotifyOutcome::no_client;
      if (!wait([&] { return b.stopping || answering_client(b) != nullptr; })) return NotifyOutcome::timed_out;
      continue;
    }
    pending.serial = b.next_serial++;
    pending.answered = pending.malformed = false;
    b.pending = &pending;
    hold.unlock();
    bool sent_out;
    {
      std::lock_guard<std::mutex> write(pending.target->write_lock);
      sent_out = agent::write_frame(pending.target->fd, {agent::frame_notification, pending.serial, id, body});
    }
    hold.lock();
    // One that takes nothing in for the send limit is dropped, rather than
    // asked again with a frame cut in two.
    if (!sent_out) {
      pending.target->answering = 0;
      ::shutdown(pending.target->fd, SHUT_RDWR);
    }
    const bool in_time = wait([&] {
      return !sent_out || pending.answered || pending.malformed || pending.target->gone || b.stopping || taker();
    });
    b.pending = nullptr;
    if (pending.answered) {
      if (!pending.accepted) return NotifyOutcome::declined;
      body = std::move(pending.body);
      return NotifyOutcome::answered;
    }
    if (b.stopping) return NotifyOutcome::stopped;
    if (pending.malformed) {
      reoffer = true;
      continue;
    }
    if (in_time && (!sent_out || pending.target->gone)) return NotifyOutcome::gone;
    const auto ms = limit.count();
    const std::string text =
        in_time ? "notification " + std::to_string(id) + " taken over from " + agent::client_name(*pending.target) +
                      " by " + agent::client_name(*taker())
                : agent::client_name(*pending.target) + " did not answer notification " + std::to_string(id) +
                      " within " + (ms % 1000 ? std::to_string(ms) + " ms" : std::to_string(ms / 1000) + " s");
    hold.unlock();
    agent::log_notice(text);
    if (!in_time) return NotifyOutcome::timed_out;
    hold.lock();
    deadline = std::chrono::steady_clock::now() + limit;
  }
}

bool NotifyClientAndWaitResponse(NotificationIdType id, std::string& body, long timeout) {
  return NotifyClient(id, body, timeout, nullptr) == NotifyOutcome::answered;
}

}  // namespace bridge::server
