// The command bridge over a Unix domain socket: the server the daemon runs,
// the connection a client holds, and the frames between them. The framing
// is written down in the README ("The command bridge").
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace agent {

// Frames: a header of four unsigned 32-bit little-endian numbers (type,
// serial, value, body length) and the body.
enum frame_type_t : uint32_t {
  frame_command = 1,       // client -> daemon: value is the code
  frame_command_reply = 2, // daemon -> client: value is the result (0 or 1)
  frame_notification = 3,  // daemon -> client: value is the notification id
  frame_answer = 4,        // client -> daemon: value 1 answered, 0 declined
  frame_answering = 5,     // client -> daemon: this client answers notifications
  frame_refusal = 6,       // daemon -> client: the frame of this serial, or with
                           // serial 0 the connection, is refused; body: why
};
constexpr size_t frame_header_size = 16;
// A body above this drops the connection that announced it.
constexpr uint32_t frame_body_limit = 4u << 20;

struct frame_t {
  uint32_t type = 0;
  uint32_t serial = 0;  // a reply or answer carries the serial it answers
  uint32_t value = 0;
  std::string body;
};

enum class frame_read_t { ok, closed, bad };
// Reads one whole frame: closed at a clean end before a header, bad for a
// cut frame, an unknown type or a body above the limit, or a read error.
// The wait for a frame's first byte has no limit; with a limit of time
// (milliseconds, negative for none) the rest must come within it, or bad.
frame_read_t read_frame(int fd, frame_t& frame, int limit_ms = -1);
// Writes one whole frame; false if the connection failed. Never raises
// SIGPIPE.
bool write_frame(int fd, const frame_t& frame);

// Group lookups: the id of the group called name (false when there is
// none), the name of a group id (its number when it has none), and whether
// the user uid has gid as its primary or one of its supplementary groups.
bool group_id(const std::string& name, gid_t& id);
std::string group_name(gid_t id);
bool user_in_group(uid_t uid, gid_t gid);

// Where the bridge listens unless told otherwise: systemVarDir() +
// "corvid_bridge.sock"; empty when the agent has no var directory (no root).
std::string default_socket_path();

// The directories from "/" down to dir, links resolved; empty when dir
// cannot be resolved.
std::vector<std::string> way_to(const std::string& dir);

// Whether a user other than root and this process's could put something
// else at path: the directory that holds it (path's links resolved) and
// every directory on the way are judged as the module's own directories are
// (platform/exposure.h), and the object at path, if there is one, must
// belong to root or this user. Empty when nobody else can; else the object
// that fails, named, and why.
std::string unsafe_way(const std::string& path);

// How long a client may take over a notification when its sender gives no
// time of its own.
constexpr int default_answer_limit_s = 300;

// What the server allows its clients. The defaults are the daemon's; the
// times are here so that a test can shorten them.
struct bridge_limits_t {
  int answer_s = default_answer_limit_s;  // a notification's wait, unless its sender says
  int frame_ms = 10000;                   // a frame that has begun must be whole within this
  int send_s = 10;                        // a client that reads nothing this long is dropped
  size_t connections = 64;                // clients at once
  size_t reserved = 16;  // the last places of those, for root and the daemon's user only
  size_t per_user = 16;  // clients of one user other than those
};

// Starts the server: binds path (its directory made if needed; a stale
// socket file left by a dead server is replaced; a path without a slash is
// in the current directory), accepts clients on a thread of its own and
// serves each on another. The socket is owner-only, or, with a group named,
// owned by that group with mode 0660 so that its members may connect.
// Who a peer is comes from the socket (its user and groups): root and the
// daemon's own user may send every command; anyone connected may send the
// open_codes; notifications go only to a client that said it answers them
// and is root, the daemon's user or a member of the group, and wait for its
// answer up to limits.answer_s unless the sender says otherwise; root's or the
// daemon's user's client that offers while the install question waits for
// another takes the question over. False with a
// reason when the group is unknown or cannot reach the socket's directory,
// another user could change the way to the socket (unsafe_way), the socket
// cannot be made or another server answers on it. The socket's group and
// mode are set without following a link.
bool start_bridge(const std::string& path, std::string& error, const std::string& group = "",
                  const std::vector<uint32_t>& open_codes = {}, const bridge_limits_t& limits = {});
// Disconnects every client, ends waiting notifications with false, joins the
// threads and removes the socket file. Safe to call when not started.
void stop_bridge();

// Answers one notification: id and body in, the answer in body. False
// declines it.
using notification_answerer_t = std::function<bool(uint32_t id, std::string& body)>;

// A client inside the process: while set, notifications go to it and not to
// a connected client. Empty function to unset. Safe from any thread.
void set_local_client(notification_answerer_t answerer);

// A client's connection to the bridge. One thread uses it at a time.
class bridge_client_t {
 public:
  bridge_client_t() = default;
  ~bridge_client_t();
  bridge_client_t(const bridge_client_t&) = delete;
  bridge_client_t& operator=(const bridge_client_t&) = delete;

  // False with a reason; a client the socket's permissions refuse is told
  // the group whose members may connect. Talks only to a server that runs
  // as root or as this process's user, behind a way nobody else can change
  // (unsafe_way): anything else could ask it to run commands.
  bool connect(const std::string& path, std::string& error);
  // Sends a command and waits for its reply, answering the notifications
  // that come meanwhile through answer. False with a reason when the
  // connection fails, the daemon refuses the command or sends garbage.
  bool call(uint32_t code, const std::string& request, bool& result, std::string& reply,
            const notification_answerer_t& answer, std::string& error);
  // Tells the daemon that this client answers notifications; the latest
  // such client is the one asked. False with the daemon's reason.
  bool offer_answers(std::string& error);
  // Answers notifications for up to milliseconds.
  bool wait(int milliseconds, const notification_answerer_t& answer, std::string& error);

 private:
  bool exchange(const frame_t& out, frame_t& reply, const notification_answerer_t& answer, std::string& error);
  bool answer_notification(const frame_t& frame, const notification_answerer_t& answer, std::string& error);
  int fd_ = -1;
  uint32_t next_serial_ = 1;
};

}  // namespace agent
