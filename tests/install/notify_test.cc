// The messages to the client, byte by byte, and the readers of its replies.
#include <gtest/gtest.h>

#include "install/notify.h"

namespace update {
namespace {

using bytes = std::string;

TEST(ClientMessages, LayOutTheirFieldsByteForByte) {
  update_ini_t owner;
  owner.message = "M";
  owner.timeout = -2;
  owner.uri = "u";
  file_rule_t rule;
  rule.exec_user = "U";
  rule.display_name = "D";
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

TEST(ClientMessages, ExecUserReplyNeedsItsWholeHeaderAndText) {
  struct row_t {
    bytes reply;
    bool malformed, result;
    const char* text;
  };
  const row_t rows[] = {
      {bytes("\x01\0\0\0\0", 5), false, true, ""},
      {bytes("\x00\x03\0\0\0abc", 8), false, false, "abc"},
      {bytes("\x02\x01\0\0\0xyz", 8), false, false, "x"},  // bytes behind the text are ignored
      {bytes("\x01\x05\0\0\0a", 6), true, false, ""},      // length runs past the reply
      {bytes("\x01\0\0", 3), true, false, ""},             // a good first byte does not save it
      {bytes(), true, false, ""},
  };
  for (const auto& row : rows) {
    std::string text = "untouched";
    bool result = false;
    bool threw = false;
    try {
      result = read_exec_user_reply(row.reply, text);
    } catch (const char* what) {
      threw = std::string(what) == "CommandStreamError";
    }
    EXPECT_EQ(threw, row.malformed) << row.reply.size();
    if (!row.malformed) {
      EXPECT_EQ(result, row.result);
      EXPECT_EQ(text, row.text);
    }
  }
}

}  // namespace
}  // namespace update
