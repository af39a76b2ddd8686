// The daemon's bridge and its clients over a real Unix socket, with the
// module's own listener registered by init.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <future>

#include "agent/bridge.h"
#include "frame/frame_fixture.h"
#include "platform/command_bridge.h"

namespace update::testing {
namespace {

class BridgeTest : public ModuleTest {
 protected:
  void TearDown() override {
    agent::stop_bridge();
    ModuleTest::TearDown();
  }
  int raw_connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socket_.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }
  std::future<bool> notify_later(std::string& body) {
    return std::async(std::launch::async, [&body] {
      return bridge::server::NotifyClientAndWaitResponse(NotifyUpdateInstallQuestion, body, -1);
    });
  }
  const std::string socket_ = scratch_.path("run/bridge.sock");
};

TEST_F(BridgeTest, DaemonServesClientsOneAfterAnotherAndSurvivesBadOnes) {
  start_module();
  std::string error;
  ASSERT_TRUE(agent::start_bridge(socket_, error)) << error;
  struct stat st;
  ASSERT_EQ(::stat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_FALSE(agent::start_bridge(socket_, error));

  // Garbage, a body above the limit, a reply a client has no business
  // sending, a cut header: each such client is dropped (the daemon closes).
  const std::string oversize("\x01\0\0\0\0\0\0\0\x06\0\0\0\x01\0\x50\0", 16);
  const std::string bad[] = {"GET / HTTP/1.0\r\n\r\n", oversize, std::string("\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16)};
  for (const auto& bytes : bad) {
    const int fd = raw_connect();
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    char c;
    EXPECT_EQ(::read(fd, &c, 1), 0) << bytes.size();
    ::close(fd);
  }

  auto client_holder = std::make_unique<agent::bridge_client_t>();
  agent::bridge_client_t& client = *client_holder;
  ASSERT_TRUE(client.connect(socket_, error)) << error;
  bool result = false;
  std::string reply;
  ASSERT_TRUE(client.call(6, "", result, reply, nullptr, error)) << error;
  EXPECT_TRUE(result);
  EXPECT_EQ(reply, std::string("\0\0\0\0", 4));  // undefined: nothing on disk yet
  ASSERT_TRUE(client.call(7, "", result, reply, nullptr, error));
  EXPECT_EQ(reply.rfind("<update-status result=\"undefined\">", 0), 0u) << reply;
  ASSERT_TRUE(client.call(6, "1234567", result, reply, nullptr, error));  // the listener threw
  EXPECT_FALSE(result);

  // A question reaches the connected client and waits for its answer.
  std::string body = "question";
  auto answered = notify_later(body);
  std::string asked;
  while (asked.empty()) {
    ASSERT_TRUE(client.wait(50, [&](uint32_t id, std::string& b) {
      asked = std::to_string(id) + ":" + b;
      b = "\x01";
      return true;
    }, error)) << error;
  }
  EXPECT_TRUE(answered.get());
  EXPECT_EQ(asked, "6:question");
  EXPECT_EQ(body, "\x01");

  // The latest client gets the next question; it goes away meanwhile. Its
  // command frame and the reply are written out byte for byte: little-endian
  // type, serial, value and body length.
  const int quitter = raw_connect();
  const std::string command("\x01\0\0\0\x07\0\0\0\x05\0\0\0\x01\0\0\0x", 17);
  ASSERT_EQ(::write(quitter, command.data(), command.size()), 17);
  char replied[16];
  ASSERT_EQ(::read(quitter, replied, sizeof replied), 16);  // served: now the latest
  EXPECT_EQ(std::string(replied, 16), std::string("\x02\0\0\0\x07\0\0\0\0\0\0\0\0\0\0\0", 16));
  agent::frame_t frame;
  auto abandoned = notify_later(body);
  ASSERT_EQ(agent::read_frame(quitter, frame), agent::frame_read_t::ok);
  EXPECT_EQ(frame.type, agent::frame_notification);
  ::close(quitter);
  EXPECT_FALSE(abandoned.get());

  // Without clients a question fails at once, and stopping removes the socket.
  client_holder.reset();
  EXPECT_FALSE(bridge::server::NotifyClientAndWaitResponse(NotifyUpdateInstallQuestion, body, -1));
  agent::stop_bridge();
  EXPECT_NE(::stat(socket_.c_str(), &st), 0);
}

}  // namespace
}  // namespace update::testing
