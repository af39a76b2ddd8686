// Messages from the module to the graphical client, through the bridge's
// notifications, and the readers of their replies. All run on the update
// worker, never under the status lock, and wait for the client up to the
// bridge's limit; the install question, when the update gives it a time of
// its own, that time and a margin. A malformed reply throws "CommandStreamError"
// (support/stream_error.h); nothing in the module catches it.
#pragma once
#include <string>

#include "platform/command_bridge.h"
#include "records/update_ini.h"

namespace update {

// Notification 6: asks whether to install rule. True for a yes (first byte
// of the reply 1). With no client that answers questions connected: true
// unless with_uri, so that the install stage, which passes false, takes no
// client as no objection. A client asked that goes away or runs out of time
// without a yes, and a stop, are a no; once the module is stopping nobody is
// asked.
bool notify_install(const update_ini_t& owner, const file_rule_t& rule, bool with_uri);

// Notification 7, kind 1: has the client run exec_user, waiting for it if
// wait. True when the client reports success; text receives the client's
// text, or "send notification to GUI failed" when no client answered. Once
// the module is stopping it is not sent.
bool notify_exec_user(const std::string& exec_user, bool wait, bool silent, std::string& text);

// Notification 7, kind 0: a text for the client; the reply is not read.
void notify_text(const std::string& text);

// The bodies, as they go out.
std::string install_question_body(const update_ini_t& owner, const file_rule_t& rule, bool with_uri);
std::string exec_user_body(const std::string& exec_user, bool wait, bool silent);
std::string client_text_body(const std::string& text);

// Whether answer can be read as the reply to the notification sent: the
// bridge drops a client that answers otherwise and asks another.
bool readable_answer(NotificationIdType id, const std::string& sent, const std::string& answer);

// Reads a reply to notification 7 kind 1 into text; returns the result.
bool read_exec_user_reply(const std::string& reply, std::string& text);

}  // namespace update
