#include "client/responder.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <poll.h>
#include <unistd.h>

#include "platform/command_bridge.h"
#include "platform/process.h"
#include "support/byte_layout.h"

namespace client {

namespace {

void print_list(const char* title, const std::string& list) {
  if (list.empty()) return;
  std::fprintf(stderr, "  %s:\n", title);
  size_t from = 0;
  for (;;) {
    const size_t end = list.find('\n', from);
    std::fprintf(stderr, "    %s\n", list.substr(from, end - from).c_str());
    if (end == std::string::npos) break;
    from = end + 1;
  }
}

enum class read_t { line, ended, timed_out, cancelled };

// One line from standard input within the time limit (none when 0 or
// less), unless cancel_fd becomes readable first.
read_t read_answer(int32_t timeout_seconds, int cancel_fd, std::string& line) {
  using clock = std::chrono::steady_clock;
  const auto deadline = clock::now() + std::chrono::seconds(timeout_seconds > 0 ? timeout_seconds : 0);
  line.clear();
  for (;;) {
    pollfd ready[2] = {{STDIN_FILENO, POLLIN, 0}, {cancel_fd, POLLIN, 0}};
    int wait_ms = -1;
    if (timeout_seconds > 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now()).count();
      wait_ms = left > 0 ? static_cast<int>(left) : 0;
    }
    const int n = ::poll(ready, cancel_fd >= 0 ? 2 : 1, wait_ms);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return read_t::ended;
    if (n == 0) return read_t::timed_out;
    if (cancel_fd >= 0 && ready[1].revents != 0) return read_t::cancelled;
    char c;
    const ssize_t got = ::read(STDIN_FILENO, &c, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got != 1) return read_t::ended;  // the end of input, or the terminal is gone
    if (c == '\n') return read_t::line;
    line += c;
  }
}

}  // namespace

answer_t default_answer() { return isatty(STDIN_FILENO) == 1 ? answer_t::ask : answer_t::no; }

bool parse_install_question(const std::string& body, install_question_t& q) {
  update::byte_reader_t r(body);
  return r.counted(q.exec_sys) && r.counted(q.exec_user) && r.counted(q.display_name) && r.counted(q.message) &&
         r.counted(q.ready_files) && r.counted(q.other_files) && r.number(q.timeout) &&
         r.counted(q.uri);
}

bool parse_client_message(const std::string& body, client_message_t& m) {
  update::byte_reader_t r(body);
  if (!r.number(m.kind)) return false;
  if (m.kind == 0) return r.counted(m.text);
  uint8_t wait = 0, silent = 0;
  if (m.kind != 1 || !r.counted(m.text) || !r.number(wait) || !r.number(silent)) return false;
  m.wait = wait == 1;
  m.silent = silent == 1;
  return true;
}

std::string exec_user_reply(bool result, const std::string& text) {
  std::string reply(1, result ? '\x01' : '\x00');
  update::append_counted(reply, text);
  return reply;
}

bool run_user_command(const std::string& command_line, bool wait, std::string& text) {
  using namespace update::platform;
  process_t process;
  const int error = start_user_process(command_line, process);
  if (error != 0) {
    text = "cannot start: " + system_error_text(error);
    return false;
  }
  if (!wait) {
    text = "started";
    release_process(process);
    return true;
  }
  process_end_t end;
  if (!wait_process(process, end)) {
    text = "lost the command while waiting";
    return false;
  }
  if (end.signal != 0) {
    text = "ended by " + signal_name(end.signal);
    return false;
  }
  text = "exit status " + std::to_string(end.exit_status);
  return end.exit_status == 0;
}

bool responder_t::ask(const install_question_t& q) const {
  std::fprintf(stderr, "\nThe update asks to install %s\n", q.display_name.empty() ? "its files" : q.display_name.c_str());
  if (!q.message.empty()) std::fprintf(stderr, "  %s\n", q.message.c_str());
  if (!q.uri.empty()) std::fprintf(stderr, "  from %s\n", q.uri.c_str());
  print_list("ready", q.ready_files);
  print_list("not ready", q.other_files);
  if (!q.exec_sys.empty()) std::fprintf(stderr, "  the service runs: %s\n", q.exec_sys.c_str());
  if (!q.exec_user.empty()) std::fprintf(stderr, "  you run: %s\n", q.exec_user.c_str());
  if (q.timeout > 0) std::fprintf(stderr, "  (installs in %d s unless you answer)\n", q.timeout);
  std::fprintf(stderr, "Install now? [y/N] ");
  std::fflush(stderr);
  std::string line;
  switch (read_answer(q.timeout, cancel_fd_, line)) {
    case read_t::timed_out:
      std::fprintf(stderr, "\nno answer: installing\n");
      return true;
    case read_t::cancelled:
      std::fprintf(stderr, "\nstopping: not installed\n");
      return false;
    case read_t::ended:
      std::fprintf(stderr, "\nno answer: not installed\n");
      return false;
    case read_t::line:
      break;
  }
  return line == "y" || line == "Y" || line == "yes";
}

bool responder_t::operator()(uint32_t id, std::string& body) const {
  if (id == NotifyUpdateInstallQuestion) {
    install_question_t question;
    if (!parse_install_question(body, question)) return false;
    const bool yes = answer_ == answer_t::ask ? ask(question) : answer_ == answer_t::yes;
    if (answer_ != answer_t::ask)
      std::fprintf(stderr, "update: asked to install %s: %s\n", question.display_name.c_str(), yes ? "yes" : "no");
    body.assign(1, yes ? '\x01' : '\x00');
    return true;
  }
  client_message_t message;
  if (id != NotifyUpdateClientMessage || !parse_client_message(body, message)) return false;
  if (message.kind == 0) {
    std::fprintf(stderr, "update: %s\n", message.text.c_str());
    body.clear();
    return true;
  }
  if (!message.silent) std::fprintf(stderr, "update: running %s\n", message.text.c_str());
  std::string text;
  const bool ok = run_user_command(message.text, message.wait, text);
  if (!message.silent || !ok) std::fprintf(stderr, "update: %s: %s\n", message.text.c_str(), text.c_str());
  body = exec_user_reply(ok, text);
  return true;
}

}  // namespace client
