// The install stage on a status prepared by hand, with real commands and the
// bridge's in-process client standing in for the graphical one; the messages
// to the client byte by byte.
#include <gtest/gtest.h>
#include <unistd.h>

#include "agent/agent.h"
#include "agent/bridge.h"
#include "facts/stop_flag.h"
#include "install/install.h"
#include "install/notify.h"
#include "install/path_vars.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

enum class client_t { none, yes, no, fails, unreadable };

struct row_t {
  const char* name;
  Command command;
  const char* silent;
  string_list_t exec_list;
  client_t client;
  file_state_t state;
  const char* message;  // substring; "" for no message
  int questions;
  bool sys_ran;
  bool user_sent;
  bool stopped = false;  // the module stops before the rule's turn
};

class InstallTest : public StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    agent::configure_paths(agent::paths_under(dir_.path("root")));
    build_path_vars();
  }
  void TearDown() override { agent::set_local_client(nullptr); StatusTest::TearDown(); }
  // One rule of one downloaded file, as the run hands it over.
  void install(const row_t& row) {
    quiet();
    status.save_enabled = true;
    file_status_t& file = status.file_entry("f");
    file.state = file_downloaded, file.available = true;
    owner_ = update_ini_t{};
    owner_.silent = row.silent, owner_.uri = "http://u/";
    rule_ = file_rule_t{};
    rule_.owner = &owner_, rule_.entries = {{"f", dir_.path("f"), "", "", 0, true}}, rule_.exec_list = row.exec_list;
    rule_.exec_sys = "sh -c 'echo > " + dir_.path("sys") + "'", rule_.exec_sys_wait = "yes";
    rule_.exec_user = "U $update_path $system_var_etc $update_uri", rule_.legacy_exec = true;
    std::remove(dir_.path("sys").c_str());
    questions_ = 0;
    sent_user_.clear();
    if (row.client != client_t::none)
      agent::set_local_client([this, client = row.client](uint32_t id, std::string& body) {
        if (id == 6) {
          ++questions_;
          body.assign(client == client_t::unreadable ? 0 : 1, client == client_t::no ? 0 : 1);
        } else {
          sent_user_ = body;
          body = client == client_t::fails ? std::string("\x00\x03\0\0\0bad", 8) : std::string("\x01\x02\0\0\0ok", 7);
        }
        return true;
      });
    if (row.stopped) request_stop();
    install_rule(rule_, row.command, dir_.path("upd/"));
    clear_stop_request();
    agent::set_local_client(nullptr);
  }
  update_ini_t owner_;
  file_rule_t rule_;
  int questions_ = 0;
  std::string sent_user_;
};

TEST_F(InstallTest, AsksThenRunsSysThenHandsUserCommandToTheClient) {
  const row_t rows[] = {
      {"asked", Command::install, "", {}, client_t::yes, file_installed, "", 1, true, true},
      {"silent", Command::install, "1", {}, client_t::yes, file_installed, "", 0, true, true},
      {"manual", Command::install_manual, "", {}, client_t::yes, file_installed, "", 0, true, true},
      {"list", Command::install, "", {"true"}, client_t::yes, file_installed, "", 0, false, false},
      {"list fails", Command::install, "", {"true", "false"}, client_t::yes, file_install, "exec() exit: false, status: 1", 0, false, false},
      {"refused", Command::install, "", {}, client_t::no, file_install, "Canceled by user", 1, false, false},
      {"unreadable", Command::install, "", {}, client_t::unreadable, file_install, "Canceled by user", 1, false, false},
      {"no client", Command::install, "", {}, client_t::none, file_install, "error: send notification to GUI failed", 0, true, false},
      {"stopped", Command::install, "", {}, client_t::yes, file_downloaded, "stopping, not started: installation", 0, false, false, true},
      {"user fails", Command::install, "", {}, client_t::fails, file_install, "error: bad", 1, true, true},
  };
  for (const auto& row : rows) {
    install(row);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(status.files.front().state, row.state) << row.name;
    const std::string& text = status.messages.front().text;
    EXPECT_TRUE(*row.message ? text.find(row.message) != std::string::npos : text.empty()) << row.name << ": " << text;
    EXPECT_EQ(questions_, row.questions) << row.name;
    EXPECT_EQ(fixtures::read_file(dir_.path("sys")) == "\n", row.sys_ran) << row.name;
    EXPECT_EQ(!sent_user_.empty(), row.user_sent) << row.name;
    EXPECT_EQ(status.current_rule == nullptr, row.state != file_install) << row.name;
  }
  // Of the last row: $update_path loses one separator; $system_var matches the front of
  // $system_var_etc, which keeps "_etc" behind the value; $update_uri is the source's.
  const std::string line = "U " + dir_.path("upd") + " " + dir_.path("root/var") + "_etc http://u/";
  EXPECT_EQ(sent_user_, exec_user_body(line, false, false));
}

using bytes = std::string;

TEST(ClientMessages, LayOutTheirFieldsByteForByte) {
  update_ini_t owner;
  owner.message = "M", owner.timeout = -2, owner.uri = "u";
  file_rule_t rule;
  rule.exec_user = "U", rule.display_name = "D";
  rule.entries = {{"a", "/p/a", "", "#T:1", 0, true}, {"b", "/p/b", "", "", 0, false}, {"c", "/p/c", "", "", 0, true}};
  file_rule_t bare;
  const std::pair<bytes, bytes> rows[] = {
      {exec_user_body("ab", true, false), bytes("\x01\x02\0\0\0ab\x01\x00", 9)},
      {client_text_body("hi"), bytes("\x00\x02\0\0\0hi", 7)},
      // Empty exec_sys and lists take four zero bytes each; ready entries
      // are joined by one newline, a hash follows in brackets.
      {install_question_body(owner, rule, true),
       bytes("\0\0\0\0" "\x01\0\0\0U" "\x01\0\0\0D" "\x01\0\0\0M" "\x10\0\0\0/p/a [#T:1]\n/p/c" "\x04\0\0\0/p/b"
             "\xfe\xff\xff\xff" "\x01\0\0\0u", 56)},
      {install_question_body(owner, bare, false),
       bytes("\0\0\0\0\0\0\0\0\0\0\0\0\x01\0\0\0M\0\0\0\0\0\0\0\0\xfe\xff\xff\xff\0\0\0\0", 33)},
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
}

// The reply: a result byte (1 is success), the text's length and the text. A
// reply the module cannot read is the client's fault; a text's reply is not
// read, and an answer to the question must hold its byte.
TEST(ClientMessages, ExecUserReplyNeedsItsWholeHeaderAndText) {
  const std::pair<bytes, const char*> rows[] = {
      {bytes("\x01\0\0\0\0", 5), "1:"},
      {bytes("\x02\x01\0\0\0xyz", 8), "0:x"},              // bytes behind the text are ignored
      {bytes("\x01\x05\0\0\0a", 6), "CommandStreamError"},  // length runs past the reply
      {bytes("\x01\0\0", 3), "CommandStreamError"},         // a good first byte does not save it
  };
  for (const auto& [reply, expected] : rows) {
    std::string text;
    try {
      const bool result = read_exec_user_reply(reply, text);
      text = (result ? "1:" : "0:") + text;
    } catch (const char* what) {
      text = what;
    }
    EXPECT_EQ(text, expected) << reply.size();
    EXPECT_EQ(readable_answer(NotifyUpdateClientMessage, exec_user_body("x", true, false), reply),
              text != "CommandStreamError") << reply.size();
    EXPECT_TRUE(readable_answer(NotifyUpdateClientMessage, client_text_body("t"), ""));
  }
  EXPECT_FALSE(readable_answer(NotifyUpdateInstallQuestion, "q", ""));
  EXPECT_TRUE(readable_answer(NotifyUpdateInstallQuestion, "q", bytes(1, '\0')));
}

}  // namespace
}  // namespace update::testing
