// Fuzz target for what crosses the command bridge: frames as either end
// reads them, the module's reader of the client's reply, and the client's
// readers of the module's messages. The first input byte picks the reader.
// Besides crashes and sanitizer findings it checks that whatever a reader
// accepts, written again by the matching writer, gives back the bytes it
// was read from.
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "fuzz/fuzz_support.h"
#include "agent/bridge.h"
#include "client/responder.h"
#include "install/notify.h"
#include "platform/command_bridge.h"

// The notifications never go out here; only their readers are fuzzed.
namespace bridge::server {
NotifyOutcome NotifyClient(NotificationIdType, std::string&, long, AnswerCheck) { return NotifyOutcome::no_client; }
bool NotifyClientAndWaitResponse(NotificationIdType, std::string&, long) { return false; }
}  // namespace bridge::server
namespace update {
bool stop_refuses(const std::string&, int32_t) { return false; }
}  // namespace update

namespace {

using fuzz::check;

void fuzz_frames(const std::string& input) {
  const int in = memfd_create("frames", 0);
  int pair[2];
  check(in >= 0 && socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0, "descriptors");
  check(write(in, input.data(), input.size()) == static_cast<ssize_t>(input.size()), "memfd write");
  lseek(in, 0, SEEK_SET);
  std::string rewritten;
  agent::frame_t frame;
  while (agent::read_frame(in, frame) == agent::frame_read_t::ok) {
    check(agent::write_frame(pair[0], frame), "an accepted frame can be written");
    char buffer[8192];
    const ssize_t n = read(pair[1], buffer, sizeof buffer);
    check(n >= static_cast<ssize_t>(agent::frame_header_size), "written frame arrives");
    rewritten.append(buffer, static_cast<size_t>(n));
  }
  check(input.compare(0, rewritten.size(), rewritten) == 0, "accepted frames rewrite to their bytes");
  close(in);
  close(pair[0]);
  close(pair[1]);
}

void fuzz_exec_reply(const std::string& input) {
  std::string text;
  // The bridge lets through exactly the answers the module can read.
  const bool readable = update::readable_answer(NotifyUpdateClientMessage, update::exec_user_body("x", true, false), input);
  try {
    update::read_exec_user_reply(input, text);
  } catch (const char*) {
    check(!readable, "an answer the bridge lets through is read");
    return;
  }
  check(readable, "an answer the module reads is let through");
  check(input.size() >= 5 && input.compare(5, text.size(), text) == 0, "reply text is the counted bytes");
  check(client::exec_user_reply(true, text).substr(1) == input.substr(1, 4 + text.size()),
        "reply rewrites to its bytes");
}

void fuzz_client_message(const std::string& input) {
  client::client_message_t m;
  if (!client::parse_client_message(input, m)) return;
  const std::string again = m.kind == 0 ? update::client_text_body(m.text) : update::exec_user_body(m.text, m.wait, m.silent);
  if (m.kind == 1 && (static_cast<uint8_t>(input[again.size() - 2]) > 1 || static_cast<uint8_t>(input[again.size() - 1]) > 1))
    return;  // any other flag byte reads as off
  check(input.compare(0, again.size(), again) == 0, "client message rewrites to its bytes");
}

void fuzz_install_question(const std::string& input) {
  client::install_question_t q;
  if (!client::parse_install_question(input, q)) return;
  update::update_ini_t owner;
  owner.message = q.message;
  owner.timeout = q.timeout;
  owner.uri = q.uri;
  update::file_rule_t rule;
  rule.exec_sys = q.exec_sys;
  rule.exec_user = q.exec_user;
  rule.display_name = q.display_name;
  if (!q.ready_files.empty()) rule.entries.push_back({"r", q.ready_files, "", "", 0, true});
  if (!q.other_files.empty()) rule.entries.push_back({"o", q.other_files, "", "", 0, false});
  const std::string again = update::install_question_body(owner, rule, true);
  check(input.compare(0, again.size(), again) == 0, "install question rewrites to its bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0] % 4) {
    case 0: fuzz_frames(input); break;
    case 1: fuzz_exec_reply(input); break;
    case 2: fuzz_client_message(input); break;
    default: fuzz_install_question(input); break;
  }
  return 0;
}
