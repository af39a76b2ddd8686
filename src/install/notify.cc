#include "install/notify.h"

#include <cstdint>

#include "facts/stop_flag.h"
#include "platform/command_bridge.h"
#include "runner/run_exec.h"
#include "status/status.h"
#include "support/byte_layout.h"
#include "support/stream_error.h"

namespace update {

namespace {

// Client notification of errors is off in this module; the message stays
// for when it is turned on.
constexpr bool notify_errors = false;

// The bridge's own limit for a client's answer.
constexpr long bridge_limit = -1;
// A client whose user lets the update's time for the question run out
// answers yes then; this much longer, that yes still counts.
constexpr long answer_margin_ms = 30000;

void append_entry(std::string& list, const file_entry_t& entry) {
  if (!list.empty()) list += '\n';
  list += entry.local_path;
  if (!entry.hash.empty()) list += " [" + entry.hash + "]";
}

}  // namespace

std::string install_question_body(const update_ini_t& owner, const file_rule_t& rule, bool with_uri) {
  std::string ready, others;
  for (const auto& entry : rule.entries) append_entry(entry.ready ? ready : others, entry);
  std::string body;
  append_counted(body, rule.exec_sys);
  append_counted(body, rule.exec_user);
  append_counted(body, rule.display_name);
  append_counted(body, owner.message);
  append_counted(body, ready);
  append_counted(body, others);
  const int32_t timeout = owner.timeout;
  body.append(reinterpret_cast<const char*>(&timeout), sizeof timeout);
  append_counted(body, with_uri ? owner.uri : std::string());
  return body;
}

std::string exec_user_body(const std::string& exec_user, bool wait, bool silent) {
  std::string body(1, '\x01');
  append_counted(body, exec_user);
  body += wait ? '\x01' : '\x00';
  body += silent ? '\x01' : '\x00';
  return body;
}

std::string client_text_body(const std::string& text) {
  std::string body(1, '\x00');
  append_counted(body, text);
  return body;
}

bool read_exec_user_reply(const std::string& reply, std::string& text) {
  byte_reader_t r(reply);
  uint8_t result = 0;
  if (!r.number(result) || !r.counted(text)) raise_stream_error();
  return result == 1;
}

bool readable_answer(NotificationIdType id, const std::string& sent, const std::string& answer) {
  if (id == NotifyUpdateInstallQuestion) return !answer.empty();
  if (sent.empty() || sent[0] != 1) return true;  // a text: its reply is not read
  byte_reader_t r(answer);
  uint8_t result = 0;
  std::string text;
  return r.number(result) && r.counted(text);
}

bool notify_install(const update_ini_t& owner, const file_rule_t& rule, bool with_uri) {
  if (stop_requested()) return false;  // the install stage tells why
  std::string body = install_question_body(owner, rule, with_uri);
  const long limit = owner.timeout > 0 ? owner.timeout * 1000L + answer_margin_ms : bridge_limit;
  switch (bridge::server::NotifyClient(NotifyUpdateInstallQuestion, body, limit, readable_answer)) {
    case bridge::server::NotifyOutcome::answered:
      if (body.empty()) raise_stream_error();
      return body[0] == 1;
    case bridge::server::NotifyOutcome::no_client:
      return !with_uri;
    default:
      // Asked and not answered yes: a client that went away, a stop.
      return false;
  }
}

bool notify_exec_user(const std::string& exec_user, bool wait, bool silent, std::string& text) {
  if (stop_refuses(exec_user, 0)) {
    text = "the module is stopping";
    return false;
  }
  std::string body = exec_user_body(exec_user, wait, silent);
  if (bridge::server::NotifyClient(NotifyUpdateClientMessage, body, bridge_limit, readable_answer) !=
      bridge::server::NotifyOutcome::answered) {
    text = "send notification to GUI failed";
    return false;
  }
  return read_exec_user_reply(body, text);
}

void notify_text(const std::string& text) {
  std::string body = client_text_body(text);
  bridge::server::NotifyClientAndWaitResponse(NotifyUpdateClientMessage, body, bridge_limit);
}

void notify_error(const std::string& text) {
  if (notify_errors) notify_text(text);
}

}  // namespace update
