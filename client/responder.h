// How a client of the update module answers its notifications: the install
// question (6) by a fixed answer or by asking on the terminal, the order to
// run exec_user (7, kind 1) by running it for the user, a text (7, kind 0)
// by printing it. Shared by corvid-update-client and the host's one-shot
// install, which acts as its own client.
#pragma once
#include <cstdint>
#include <string>

namespace client {

enum class answer_t { yes, no, ask };

// ask when standard input is a terminal, else no: nobody is there to agree.
answer_t default_answer();

struct install_question_t {
  std::string exec_sys, exec_user, display_name, message, ready_files, other_files;
  int32_t timeout = 0;  // seconds the user has to answer; 0 or less: no limit
  std::string uri;
};

struct client_message_t {
  uint8_t kind = 0;  // 0 a text, 1 a command to run
  std::string text;  // the text, or the command line
  bool wait = false, silent = false;
};

// False for a body that is cut short or carries an unknown kind.
bool parse_install_question(const std::string& body, install_question_t& question);
bool parse_client_message(const std::string& body, client_message_t& message);

// The reply to a kind 1 message: result byte, counted text.
std::string exec_user_reply(bool result, const std::string& text);

// Runs the command line in a session of its own; waits when asked. True on
// success (started, and if waited for, ended with status 0); text says what
// happened.
bool run_user_command(const std::string& command_line, bool wait, std::string& text);

// Answers one notification in place; false declines (an unknown id or a
// malformed body). Talks to the user on standard error and standard input.
// Asking, only a line that says yes is a yes: the end of input, a terminal
// that went away, or the descriptor cancel_fd becoming readable (a stop) is
// a no.
class responder_t {
 public:
  explicit responder_t(answer_t answer, int cancel_fd = -1) : answer_(answer), cancel_fd_(cancel_fd) {}
  bool operator()(uint32_t id, std::string& body) const;

 private:
  bool ask(const install_question_t& question) const;
  answer_t answer_;
  int cancel_fd_;
};

}  // namespace client
