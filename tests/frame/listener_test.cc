// The listener's codes, the binary status of code 6 among them.
#include <gtest/gtest.h>

#include <cstring>

#include "frame/listener.h"
#include "frame/module.h"
#include "frame/update.h"
#include "status/status.h"

namespace update {
namespace {

std::string revision_bytes(uint64_t revision, size_t extra = 0) {
  std::string out(reinterpret_cast<const char*>(&revision), sizeof revision);
  return out + std::string(extra, 'x');
}

class ListenerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_module_for_tests();
    status.revision = 42;
  }
  void TearDown() override { reset_module_for_tests(); }
  // Code 6: the result and the reply, or "threw".
  std::pair<std::string, std::string> code6(const std::string& request) {
    std::string reply;
    try {
      return {listener_.on_command(0, 6, request, reply) ? "true" : "false", reply};
    } catch (const char* text) {
      return {text, reply};
    }
  }
  UpSvcCmdListener listener_;
};

TEST_F(ListenerTest, BinaryStatusAnswersByRevisionAndResult) {
  status.result = status_uptodate;
  const std::string uptodate("\x08\0\0\0", 4);
  struct row_t {
    bool visible;
    std::string request, result, reply;
  };
  const row_t rows[] = {
      {false, "", "true", uptodate},  // no revision: no tests at all
      {true, revision_bytes(42), "true", ""},
      {false, revision_bytes(41), "false", ""},
      {true, revision_bytes(41, 4), "true", revision_bytes(42) + uptodate},
      {true, "1234567", "CommandStreamError", ""},
  };
  for (const auto& row : rows) {
    status.client_visible = row.visible;
    EXPECT_EQ(code6(row.request), std::make_pair(row.result, row.reply)) << row.request.size();
  }
  // The stream error leaves before the lock: another thread may take it.
  std::thread([] { EXPECT_TRUE(status.lock.try_lock()); status.lock.unlock(); }).join();
}

TEST_F(ListenerTest, BinaryStatusCarriesSizesWhileDownloadingAndEveryMessageOnError) {
  status.result = status_download;
  status.checking_file = "f";
  file_status_t& file = status.file_entry("f");
  file.available = true;
  file.state = file_download;
  file.download_size = 3;
  file.total_size = 9;
  EXPECT_EQ(code6("").second, std::string("\x02\0\0\0" "\x03\0\0\0\0\0\0\0" "\x09\0\0\0\0\0\0\0" "\x01\0\0\0f", 25));
  status.result = status_error;
  status.messages = {{"", "ab", 0}, {"x", "", 0}, {"y", "c", 0}};
  EXPECT_EQ(code6("").second, std::string("\x04\0\0\0" "\x03\0\0\0" "\x02\0\0\0ab" "\0\0\0\0" "\x01\0\0\0c", 23));
}

TEST_F(ListenerTest, OtherCodesReachXmlHostOrNothing) {
  static std::string handed;
  callbacks().on_client_command = [](size_t length, const char* bytes) {
    handed.assign(bytes, length);
    return true;
  };
  std::string reply = "kept";
  EXPECT_TRUE(listener_.on_command(0, 8, std::string("a\0b", 3), reply));
  EXPECT_EQ(handed, std::string("a\0b", 3));
  EXPECT_FALSE(listener_.on_command(0, 5, "", reply));
  EXPECT_TRUE(listener_.on_command(0, 7, "", reply));
  EXPECT_EQ(reply.rfind("kept<update-status", 0), 0u) << reply;
}

}  // namespace
}  // namespace update
