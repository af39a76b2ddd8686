// Command bridge of the agent: the way between the service and its client.
// A client sends commands (a code and bytes), which the bridge hands to every
// registered listener on the bridge's own thread; the service sends the
// client notifications (an id and bytes) and waits for their answers.
#pragma once
#include <cstdint>
#include <string>

// A receiver of client commands. Listeners are owned by whoever registers
// them; a listener must be removed (DelCommandListener) before it dies.
class CommandListener {
 public:
  virtual ~CommandListener() {}

  // One client command. client numbers the connection it came on; code and
  // request are the client's; whatever is appended to reply goes back. The
  // result goes back as the command's result. Runs on the bridge's thread of
  // that connection, possibly while another listener or connection runs. A
  // thrown exception is the bridge's to catch: the client is answered false.
  virtual bool on_command(uint64_t client, uint32_t code, const std::string& request, std::string& reply) = 0;

  // Told by the bridge; nothing needs to be done about them.
  virtual void on_added() {}
  virtual void on_removed() {}
  virtual void on_client_connected(uint64_t) {}
  virtual void on_client_disconnected(uint64_t) {}
  virtual void on_bridge_stopping() {}

  // The owner's number for this listener; the bridge only carries it.
  int32_t data = 0;
};

// Registers a listener; a listener registered twice is kept once. Safe from
// any thread.
void AddCommandListener(CommandListener* listener);
// Unregisters it and waits for its calls under way on other threads, so the
// caller may delete it afterwards. Unknown listeners are ignored. Safe from
// any thread but a listener's own call.
void DelCommandListener(CommandListener* listener);

// Notifications to the client. Only the two of the update module are named.
enum NotificationIdType : uint32_t {
  NotifyUpdateInstallQuestion = 6,
  NotifyUpdateClientMessage = 7,
};

namespace bridge::server {

// How a notification ended.
enum class NotifyOutcome {
  answered,   // a client accepted it; body holds its answer
  declined,   // the client asked declined it
  no_client,  // no client that answers notifications was connected
  gone,       // the client asked went away before it answered
  stopped,    // the bridge stopped first
  timed_out,  // the time ran out
};

// Whether answer can be read as the answer to sent. One that cannot is a
// protocol error of the client that gave it: the bridge drops that client and
// the notification stays open for another client's proper answer.
using AnswerCheck = bool (*)(NotificationIdType id, const std::string& sent, const std::string& answer);

// Sends body under id to the client that answers notifications and waits for
// its answer, which replaces body. timeout is in milliseconds; a negative one
// waits as long as the bridge lets a client take. check may be null. One notification is under way at
// a time; others wait their turn. Safe from any thread but a listener's call.
NotifyOutcome NotifyClient(NotificationIdType id, std::string& body, long timeout, AnswerCheck check);

// NotifyClient without a check: true when answered, body unread otherwise.
bool NotifyClientAndWaitResponse(NotificationIdType id, std::string& body, long timeout);

}  // namespace bridge::server
