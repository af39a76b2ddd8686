// corvid-update-client: talks to a serving corvid-update over the command
// bridge. Starts a manual installation, shows the status while a command
// runs, prints the status XML, or hands bytes to the host; while connected
// it answers the module's questions and runs what it is asked to run.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "agent/agent.h"
#include "agent/bridge.h"
#include "client/progress_line.h"
#include "client/responder.h"
#include "platform/command_bridge.h"
#include "records/bridge_codes.h"
#include "status/status.h"
#include "support/byte_layout.h"

namespace client {

namespace {

constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int poll_milliseconds = 200;
// A command that ends within the second of the one before can leave the
// same status text; after this long with nothing new it counts as done.
constexpr int unchanged_limit_polls = 15;

const char* usage_text() {
  return R"(Usage: corvid-update-client [OPTIONS] COMMAND

Talks to a serving corvid-update ("corvid-update serve") over its socket.

Commands:
  install     start a manual installation and follow it to its end
  status      show the status; while a command runs, follow it with a
              progress bar; --once prints one snapshot, --watch stays
              connected and follows every command until interrupted
  xml         print the status as XML
  send HEX    hand the bytes (in hex) to the host; corvid-update reads them
              as a command line, e.g. the hex of "check http://host/repo/"

Options:
  --socket PATH   the bridge's socket (default: the var directory +
                  "corvid_bridge.sock" if that exists, else the service's
                  )" CORVID_SYSTEM_SOCKET R"()
  --root DIR      the agent root the daemon was given, to find its socket
  --yes, --no     answer the install question without asking (default: ask
                  when standard input is a terminal; without one and
                  without --yes or --no the client is not asked)
  --once          status: one snapshot, no following
  --watch         status: follow every command until interrupted
  --help          this text

While it follows a command (install, status), a client that can answer
tells the daemon so, and the latest such client answers the update's install
question and runs the commands the update hands to the user; with --no it
runs none of them. Only then: xml, send and status --once never run
anything. Ctrl-C, the end of input or a closed terminal at the question is a
no.

The client talks only to a daemon running as root or as its own user, over a
socket whose directories, from / down, belong to root or that user and are
writable by their owner only (a sticky one such as /tmp counts when what
follows it belongs to root or that user); otherwise it names the directory,
or the server's user, and stops.

Exit status: 0 when the status is a defined state other than error, 1 when it
is error or undefined or the daemon cannot be reached or is refused, 2 for a
bad command line.
)";
}

struct options_t {
  std::string command, hex, socket, root;
  answer_t answer = default_answer();
  bool answer_given = false;  // --yes or --no
  bool once = false;
  bool watch = false;
};

bool parse_options(int argc, char** argv, options_t& o, std::string& error) {
  std::vector<std::string> words;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--yes" || arg == "--no") {
      o.answer = arg == "--yes" ? answer_t::yes : answer_t::no;
      o.answer_given = true;
    } else if (arg == "--once") {
      o.once = true;
    } else if (arg == "--watch") {
      o.watch = true;
    } else if (arg == "--help") {
      o.command = "help";
      return true;
    } else if (arg == "--socket" || arg == "--root") {
      if (i + 1 == argc) {
        error = "option " + arg + " needs a value";
        return false;
      }
      (arg == "--socket" ? o.socket : o.root) = argv[++i];
    } else if (arg.rfind("--", 0) == 0) {
      error = "unknown option " + arg;
      return false;
    } else {
      words.push_back(arg);
    }
  }
  if (words.empty()) {
    error = "no command given";
    return false;
  }
  o.command = words[0];
  const size_t wanted = o.command == "send" ? 2 : 1;
  if (o.command != "install" && o.command != "status" && o.command != "xml" && o.command != "send") {
    error = "unknown command " + o.command;
    return false;
  }
  if (words.size() != wanted) {
    error = o.command + (wanted == 2 ? " takes one argument" : " takes no argument");
    return false;
  }
  if (wanted == 2) o.hex = words[1];
  return true;
}

bool hex_to_bytes(const std::string& hex, std::string& bytes) {
  if (hex.size() % 2 != 0) return false;
  bytes.clear();
  for (size_t i = 0; i < hex.size(); i += 2) {
    char* end = nullptr;
    const std::string pair = hex.substr(i, 2);
    const long value = std::strtol(pair.c_str(), &end, 16);
    if (end != pair.c_str() + 2) return false;
    bytes += static_cast<char>(value);
  }
  return true;
}

// One code 6 reply, read by what was sent.
struct snapshot_t {
  uint64_t revision = 0;
  int32_t result = 0;
  uint64_t download_size = 0, total_size = 0;
  std::string checking_file;
  std::vector<std::string> messages;
};

bool parse_status(const std::string& reply, bool with_revision, snapshot_t& s) {
  update::byte_reader_t r(reply);
  s = snapshot_t{};
  if (with_revision && !r.number(s.revision)) return false;
  if (!r.number(s.result)) return false;
  if (s.result == update::status_download)
    return r.number(s.download_size) && r.number(s.total_size) && r.counted(s.checking_file);
  if (s.result == update::status_error) {
    uint32_t count = 0;
    if (!r.number(count)) return false;
    for (uint32_t i = 0; i < count; ++i)
      if (!r.counted(s.messages.emplace_back())) return false;
  }
  return true;
}

bool running(int32_t result) {
  return result == update::status_prepare || result == update::status_download || result == update::status_install;
}

class session_t {
 public:
  explicit session_t(const options_t& o)
      : responder_(o.answer), answers_no_(o.answer == answer_t::no), terminal_(isatty(STDERR_FILENO) == 1) {
    answer_ = [this](uint32_t id, std::string& body) { return answer(id, body); };
  }

  bool connect(const std::string& path) { return bridge_.connect(path, error_); }

  // Offers the daemon this client's answers; a refusal is told, not fatal.
  // Only from here to stop_answering does the client answer the update or
  // run what it hands to the user.
  void offer_answers() {
    std::string why;
    answering_ = bridge_.offer_answers(why);
    if (!answering_)
      std::fprintf(stderr, "corvid-update-client: the update will not ask this client: %s\n", why.c_str());
  }
  void stop_answering() { answering_ = false; }
  const std::string& error() const { return error_; }

  bool call(uint32_t code, const std::string& request, bool& result, std::string& reply) {
    reply.clear();
    return bridge_.call(code, request, result, reply, answer_, error_);
  }

  // The present status: by revision while the module shows it to clients,
  // else by a plain request. changed tells whether anything moved.
  bool poll(snapshot_t& s, bool& changed) {
    std::string request(reinterpret_cast<const char*>(&last_.revision), sizeof last_.revision), reply;
    bool result = false;
    if (!call(update::code_status, request, result, reply)) return false;
    if (result && reply.empty() && have_) {
      changed = false;
      s = last_;
      return true;
    }
    const bool with_revision = result;
    if (!result && !call(update::code_status, "", result, reply)) return false;
    snapshot_t fresh;
    if (!parse_status(reply, with_revision, fresh)) {
      error_ = "the daemon sent a malformed status";
      return false;
    }
    if (!with_revision) fresh.revision = 0;
    changed = !have_ || reply != last_reply_;
    last_reply_ = reply;
    last_ = fresh;
    have_ = true;
    s = fresh;
    return true;
  }

  // Answers notifications for one polling interval.
  bool pause() { return bridge_.wait(poll_milliseconds, answer_, error_); }

  void show_progress(const snapshot_t& s) {
    const char* stage = update::status_code_text(s.result);
    if (!terminal_) {
      if (s.result != shown_result_) std::fprintf(stderr, "status: %s\n", stage);
      shown_result_ = s.result;
      return;
    }
    const std::string what = s.checking_file.empty() ? "" : "checking " + s.checking_file;
    std::fputs(progress_line(stage, s.download_size, s.total_size, what).c_str(), stderr);
    std::fflush(stderr);
    bar_shown_ = true;
  }

  void clear_bar() {
    if (bar_shown_) std::fputs("\r\033[K", stderr);
    bar_shown_ = false;
  }

 private:
  // Whatever sits behind the socket may send a notification at any time; a
  // command is run only for a client that offered, and never on a no.
  bool answer(uint32_t id, std::string& body) {
    clear_bar();
    client_message_t order;
    const bool is_order = id == NotifyUpdateClientMessage && parse_client_message(body, order) && order.kind == 1;
    if (answering_ && !(is_order && answers_no_)) return responder_(id, body);
    const char* why = answering_ ? "this client answers no" : "this client did not offer to answer the update";
    if (is_order) {
      std::fprintf(stderr, "corvid-update-client: not running %s: %s\n", order.text.c_str(), why);
      body = exec_user_reply(false, std::string("not run: ") + why);
      return true;
    }
    std::fprintf(stderr, "corvid-update-client: ignored notification %u: %s\n", id, why);
    return false;
  }

  agent::bridge_client_t bridge_;
  responder_t responder_;
  const bool answers_no_;
  bool answering_ = false;
  agent::notification_answerer_t answer_;
  std::string error_;
  snapshot_t last_;
  std::string last_reply_;
  bool have_ = false;
  const bool terminal_;
  bool bar_shown_ = false;
  int32_t shown_result_ = -1;
};

int print_snapshot(const snapshot_t& s) {
  std::printf("status: %s\n", update::status_code_text(s.result));
  for (const auto& m : s.messages)
    if (!m.empty()) std::printf("message: %s\n", m.c_str());
  return s.result == update::status_error || s.result == update::status_undefined ? exit_failed : exit_ok;
}

bool status_xml(session_t& session, std::string& xml) {
  bool result = false;
  return session.call(update::code_status_xml, "", result, xml);
}

// Follows the module until no command runs; with a text of the status
// before a command was started, first until that text has changed. A
// watcher prints each new outcome and goes on.
int follow(session_t& session, const std::string* before, bool watch) {
  bool started = before == nullptr;
  int unchanged = 0;
  for (;;) {
    snapshot_t s;
    bool changed = false;
    if (!session.poll(s, changed)) break;
    if (!started) {
      std::string xml;
      if (!status_xml(session, xml)) break;
      started = xml != *before || changed || running(s.result) || ++unchanged >= unchanged_limit_polls;
      // The snapshot may predate the text that showed the start: look again.
      if (!session.pause()) break;
      continue;
    }
    if (!running(s.result)) {
      session.clear_bar();
      if (!watch) return print_snapshot(s);
      if (changed) {
        print_snapshot(s);
        std::fflush(stdout);
      }
    } else {
      session.show_progress(s);
    }
    if (!session.pause()) break;
  }
  session.clear_bar();
  std::fprintf(stderr, "corvid-update-client: %s\n", session.error().c_str());
  return exit_failed;
}

// The socket: the one named, else the daemon's under the root given, else
// the user's own daemon's if it has one, else the service's.
std::string socket_path(const options_t& o) {
  if (!o.socket.empty()) return o.socket;
  agent::configure_paths(o.root.empty() ? agent::default_paths() : agent::paths_under(o.root));
  const std::string own = agent::default_socket_path();
  std::error_code ignored;
  if (o.root.empty() && (own.empty() || !std::filesystem::exists(own, ignored))) return CORVID_SYSTEM_SOCKET;
  return own;
}

// Follows a command to its end, answering for it: start sends the command
// (none: follow whatever runs). The only path on which this client answers.
int follow_command(session_t& session, const options_t& o, const std::function<bool()>& start) {
  // Only a client with somebody, or a standing answer, behind it is asked.
  if (o.answer_given || isatty(STDIN_FILENO) == 1) session.offer_answers();
  int code = exit_failed;
  if (!start) {
    code = follow(session, nullptr, o.watch);
  } else {
    // The status before the command, so that its start can be told.
    std::string before;
    snapshot_t baseline;
    bool changed = false;
    if (session.poll(baseline, changed) && status_xml(session, before) && start()) {
      code = follow(session, &before, false);
    } else {
      std::fprintf(stderr, "corvid-update-client: %s\n", session.error().c_str());
    }
  }
  session.stop_answering();
  return code;
}

int run(const options_t& o) {
  session_t session(o);
  if (!session.connect(socket_path(o))) {
    std::fprintf(stderr, "corvid-update-client: %s\n", session.error().c_str());
    return exit_failed;
  }
  bool result = false;
  std::string reply;
  if (o.command == "xml" || o.command == "send") {
    std::string request;
    if (o.command == "send" && !hex_to_bytes(o.hex, request)) {
      std::fprintf(stderr, "corvid-update-client: send takes an even number of hex digits\n");
      return exit_usage;
    }
    if (!session.call(o.command == "xml" ? update::code_status_xml : update::code_host, request, result, reply)) {
      std::fprintf(stderr, "corvid-update-client: %s\n", session.error().c_str());
      return exit_failed;
    }
    if (o.command == "xml") std::printf("%s%s", reply.c_str(), !reply.empty() && reply.back() == '\n' ? "" : "\n");
    if (o.command == "send") std::printf("%s\n", result ? "accepted" : "refused");
    return result ? exit_ok : exit_failed;
  }
  if (o.command == "status" && o.once) {
    snapshot_t s;
    if (!session.call(update::code_status, "", result, reply) || !parse_status(reply, false, s)) {
      std::fprintf(stderr, "corvid-update-client: %s\n",
                   session.error().empty() ? "the daemon sent a malformed status" : session.error().c_str());
      return exit_failed;
    }
    return print_snapshot(s);
  }
  if (o.command == "status") return follow_command(session, o, nullptr);
  return follow_command(session, o, [&] { return session.call(update::code_install, "", result, reply); });
}

}  // namespace

}  // namespace client

int main(int argc, char** argv) {
  client::options_t options;
  std::string error;
  if (!client::parse_options(argc, argv, options, error)) {
    std::fprintf(stderr, "corvid-update-client: %s\nTry 'corvid-update-client --help'.\n", error.c_str());
    return client::exit_usage;
  }
  if (options.command == "help") {
    std::fputs(client::usage_text(), stdout);
    return client::exit_ok;
  }
  return client::run(options);
}
