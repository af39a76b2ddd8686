// corvid-update-client: talks to a serving corvid-update over the command
// bridge. Runs the host's commands by name, starts a manual installation,
// shows the status while a command runs, prints the status as XML or JSON,
// or hands bytes to the host; while connected it answers the module's
// questions and runs what it is asked to run.
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
#include "client/named_commands.h"
#include "client/progress_line.h"
#include "client/responder.h"
#include "platform/command_bridge.h"
#include "client/status_json.h"
#include "platform/log.h"
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

std::string usage_text() {
  return R"(Usage: corvid-update-client [OPTIONS] COMMAND [ARGUMENT...]

Talks to a serving corvid-update ("corvid-update serve") over its socket.

Commands that run one of the daemon's commands, as corvid-update would run
it, follow it to its end and print its outcome; without URIs the daemon
takes those of its sources file:
)" + named_commands_help() +
         R"(  unattended POLICY         what the timer runs: POLICY none runs nothing,
                            check, download or install the command of that
                            name (install is update above)

Other commands:
  install     start a manual installation and follow it to its end (it
              names no source, so it ends in error; see update)
  status      show the status; while a command runs, follow it with a
              progress bar; --once prints one snapshot, --watch stays
              connected and follows every command until interrupted,
              --json prints the status as one JSON object
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
  --json          status: one snapshot as a JSON object
  --log FILE      also write the client's own failures (no daemon to
                  reach, a refusal, an unknown policy) to FILE, the
                  daemon's log, in its format
  --help          this text

While it follows a command (a named one, install, status), a client that
can answer tells the daemon so, and the latest such client answers the
update's install question and runs the commands the update hands to the
user; with --no it runs none of them. Only then: xml, send and status
--once or --json never run anything. Ctrl-C, the end of input or a closed
terminal at the question is a no.

The client talks only to a daemon running as root or as its own user, over a
socket whose directories, from / down, belong to root or that user and are
writable by their owner only (a sticky one such as /tmp counts when what
follows it belongs to root or that user); otherwise it names the directory,
or the server's user, and stops.

Exit status: 0 when the status is a defined state other than error, 1 when it
is error or undefined, the daemon refused the command or cannot be reached
or is refused, 2 for a bad command line or an unknown policy.
)";
}

struct options_t {
  std::string command, hex, socket, root, log;
  std::vector<std::string> arguments;  // a named command's URIs, or the policy
  answer_t answer = default_answer();
  bool answer_given = false;  // --yes or --no
  bool once = false;
  bool watch = false;
  bool json = false;
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
    } else if (arg == "--json") {
      o.json = true;
    } else if (arg == "--help") {
      o.command = "help";
      return true;
    } else if (arg == "--socket" || arg == "--root" || arg == "--log") {
      if (i + 1 == argc) {
        error = "option " + arg + " needs a value";
        return false;
      }
      (arg == "--socket" ? o.socket : arg == "--root" ? o.root : o.log) = argv[++i];
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
  if (find_named_command(o.command) || o.command == "unattended") {
    o.arguments.assign(words.begin() + 1, words.end());
    if (o.command != "unattended" || o.arguments.size() == 1) return true;
    error = "unattended takes one policy";
    return false;
  }
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
  void set_error(const std::string& error) { error_ = error; }

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

// What a status with that result exits with.
int exit_for(int32_t result) {
  return result == update::status_error || result == update::status_undefined ? exit_failed : exit_ok;
}

int print_snapshot(const snapshot_t& s) {
  std::printf("status: %s\n", update::status_code_text(s.result));
  for (const auto& m : s.messages)
    if (!m.empty()) std::printf("message: %s\n", m.c_str());
  return exit_for(s.result);
}

// Tells a failure of the client's own on standard error and, with --log,
// in the daemon's log.
int fail(const std::string& text, int code = exit_failed) {
  std::fprintf(stderr, "corvid-update-client: %s\n", text.c_str());
  TLogMessage(log_id_failure).append_attr(log_attr_text, "client").append_attr(log_attr_text, text);
  return code;
}

bool status_xml(session_t& session, std::string& xml) {
  bool result = false;
  return session.call(update::code_status_xml, "", result, xml);
}

// Follows the module until no command runs; with a text of the status
// before a command was started, first until that text has changed, or with
// the id of a command, until the status is that command's. A watcher
// prints each new outcome and goes on.
int follow(session_t& session, const std::string* before, bool watch, const std::string& cmdid = "") {
  bool started = before == nullptr && cmdid.empty();
  int unchanged = 0;
  for (;;) {
    snapshot_t s;
    bool changed = false;
    if (!session.poll(s, changed)) break;
    if (!started && !cmdid.empty()) {
      std::string xml;
      if (!status_xml(session, xml)) break;
      started = xml.find(" cmdid=\"" + cmdid + "\"") != std::string::npos;
      // Idle without it: a later command took its place while it waited, or
      // ran after it between two looks, so its outcome is gone.
      if (!started && !running(s.result) && ++unchanged >= unchanged_limit_polls) {
        session.set_error("its run is not in the status: a later command took its place");
        break;
      }
      if (!session.pause()) break;
      continue;
    }
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
  return fail(session.error());
}

int print_json(session_t& session) {
  bool result = false;
  std::string xml;
  update::status_t status;
  if (!session.call(update::code_status_xml, "", result, xml)) return fail(session.error());
  if (!status_from_xml(xml, status)) return fail("the daemon sent a malformed status");
  std::printf("%s\n", status_json(status).c_str());
  return exit_for(status.result);
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
// (none: follow whatever runs), and a command that names its id is followed
// until the status is that command's. The only path on which this client
// answers.
int follow_command(session_t& session, const options_t& o, const std::function<bool()>& start,
                   const std::string& cmdid = "") {
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
      code = follow(session, cmdid.empty() ? &before : nullptr, false, cmdid);
    } else {
      code = fail(session.error());
    }
  }
  session.stop_answering();
  return code;
}

// Starts the named command through code 8 and follows the run it started.
int run_named(session_t& session, const options_t& o, const named_command_t& command,
              const std::vector<std::string>& uris, const std::string& cmdid) {
  std::string line, error;
  if (!host_command_line(command, uris, cmdid, line, error)) return fail(error, exit_usage);
  return follow_command(session, o, [&] {
    std::string reply;
    bool accepted = false;
    if (!session.call(update::code_host, line, accepted, reply)) return false;
    if (!accepted) session.set_error("the daemon refused " + std::string(command.host_command) + ": " + reply);
    return accepted;
  }, cmdid);
}

int run(const options_t& o) {
  // An unattended run is the named command its policy says, if any.
  const named_command_t* named = find_named_command(o.command);
  if (o.command == "unattended") {
    std::string name;
    if (!unattended_command(o.arguments[0], name))
      return fail("unknown unattended policy \"" + o.arguments[0] + "\": none, check, download or install", exit_usage);
    if (name.empty()) {
      std::printf("unattended: the policy is none, nothing runs\n");
      return exit_ok;
    }
    named = find_named_command(name);
  }
  session_t session(o);
  if (!session.connect(socket_path(o))) return fail(session.error());
  if (o.command == "status" && o.json) return print_json(session);
  bool result = false;
  std::string reply;
  if (o.command == "xml" || o.command == "send") {
    std::string request;
    if (o.command == "send" && !hex_to_bytes(o.hex, request)) {
      std::fprintf(stderr, "corvid-update-client: send takes an even number of hex digits\n");
      return exit_usage;
    }
    if (!session.call(o.command == "xml" ? update::code_status_xml : update::code_host, request, result, reply))
      return fail(session.error());
    if (o.command == "xml") std::printf("%s%s", reply.c_str(), !reply.empty() && reply.back() == '\n' ? "" : "\n");
    if (o.command == "send") std::printf("%s\n", result ? "accepted" : "refused");
    return result ? exit_ok : exit_failed;
  }
  if (o.command == "status" && o.once) {
    snapshot_t s;
    if (!session.call(update::code_status, "", result, reply) || !parse_status(reply, false, s))
      return fail(session.error().empty() ? "the daemon sent a malformed status" : session.error());
    return print_snapshot(s);
  }
  if (o.command == "status") return follow_command(session, o, nullptr);
  if (named) {
    const std::vector<std::string> uris = o.command == "unattended" ? std::vector<std::string>{} : o.arguments;
    return run_named(session, o, *named, uris, new_command_id(o.command == "unattended" ? "unattended" : "client"));
  }
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
    std::fputs(client::usage_text().c_str(), stdout);
    return client::exit_ok;
  }
  if (!options.log.empty() && !agent::open_log(options.log))
    std::fprintf(stderr, "corvid-update-client: cannot open the log file %s\n", options.log.c_str());
  return client::run(options);
}
