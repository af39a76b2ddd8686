// The agent's services to the module: the event manager (one worker, calls
// in order, timers when due, every queued call handed back cancelled at stop), the log (one
// line per record, whatever its attributes hold), and the bridge with its
// clients over a real socket and the module's listener.
#include <gtest/gtest.h>
#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>
#include <mutex>
#include <sstream>
#include <thread>

#include "agent/agent.h"
#include "agent/bridge.h"
#include "fixtures/scratch_dir.h"
#include "frame/frame_fixture.h"
#include "install/notify.h"
#include "platform/agent_paths.h"
#include "platform/command_bridge.h"
#include "platform/event_manager.h"
#include "platform/log.h"

namespace {

using namespace std::chrono_literals;
using call_list_t = std::vector<std::pair<int, int32_t>>;  // tag, cancel

// Every call made, with its tag (carried as the argument) and its thread.
// Each test runs in its own process, so the journal starts empty.
std::mutex journal_lock;
call_list_t calls;                     // guarded by journal_lock
std::vector<std::thread::id> threads;  // guarded by journal_lock
std::promise<void> release;

int tag_of(em_call_t* call) { return static_cast<int>(reinterpret_cast<intptr_t>(call->arg)); }
void* tag(int t) { return reinterpret_cast<void*>(static_cast<intptr_t>(t)); }

void record(em_call_t* call) {
  std::lock_guard<std::mutex> hold(journal_lock);
  calls.emplace_back(tag_of(call), call->cancel);
  threads.push_back(std::this_thread::get_id());
}

// Queues a follow-up, as the module's worker does when it dispatches.
void queue_follow_up(em_call_t* call) { record(call); EM_AsyncCall(record, tag(100 + tag_of(call))); }

class EventManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { agent::start_event_manager(); }
  void TearDown() override { agent::stop_event_manager(); }
};

TEST_F(EventManagerTest, RunsCallsInOrderOnOneWorkerThread) {
  for (int i = 0; i < 50; ++i) ASSERT_EQ(EM_AsyncCall(i % 7 == 0 ? queue_follow_up : record, tag(i)), 0);
  agent::drain_event_manager();
  std::lock_guard<std::mutex> hold(journal_lock);
  ASSERT_EQ(calls.size(), 50u + 8u);  // drain also waits for the follow-ups
  int next = 0;
  for (const auto& [t, cancel] : calls) {
    EXPECT_EQ(cancel, 0);
    if (t < 100) {
      EXPECT_EQ(t, next++);
    }
  }
  for (const auto& id : threads) EXPECT_TRUE(id == threads.front() && id != std::this_thread::get_id());
}

// A run that threw can never end, so the process must, for a service
// manager to start it again.
TEST_F(EventManagerTest, AnExceptionLeavingACallEndsTheProcessWithItsText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        EM_AsyncCall([](em_call_t*) { throw std::runtime_error("disk on fire"); }, nullptr);
        std::this_thread::sleep_for(30s);
      },
      ::testing::ExitedWithCode(1), "ended with an exception: disk on fire");
}

TEST_F(EventManagerTest, StopHandsQueuedCallsBackCancelled) {
  EM_AsyncCall(
      [](em_call_t* call) { record(call); release.get_future().wait(); },
      tag(1));
  EM_AsyncCall(queue_follow_up, tag(2));
  EM_AsyncCall(record, tag(3));
  auto started = [] { std::lock_guard<std::mutex> hold(journal_lock); return !calls.empty(); };
  while (!started()) std::this_thread::yield();
  std::thread stopper([] { agent::stop_event_manager(); });
  // A manager that is stopping refuses timers: the stop has begun.
  while (EM_SetTimer(100, 0, record, tag(9)) == 0) std::this_thread::yield();
  release.set_value();
  stopper.join();
  EXPECT_EQ(calls, (call_list_t{{1, 0}, {2, 1}, {3, 1}, {102, 1}}));

  // Once stopped, a call is handed back at once, cancelled, on the caller.
  EXPECT_NE(EM_AsyncCall(record, tag(4)), 0);
  EXPECT_EQ(calls.back(), std::make_pair(4, int32_t{1}));
  EXPECT_EQ(threads.back(), std::this_thread::get_id());
}

// A timer's call; the first one holds the worker until the test lets it go.
void tick(em_call_t* call) {
  static const std::shared_future<void> released = release.get_future().share();
  record(call);
  released.wait();
}

// A periodic timer fires again when due with nothing else to wake the worker,
// and while its call runs the manager is not drained.
TEST_F(EventManagerTest, TimersFireWhenDueAndCountAsWork) {
  ASSERT_EQ(EM_SetTimer(0, 1, tick, tag(5)), 0);
  auto ticks = [] { std::lock_guard<std::mutex> hold(journal_lock); return calls.size(); };
  while (ticks() == 0) std::this_thread::yield();
  EXPECT_FALSE(agent::drain_event_manager_for(50));
  release.set_value();
  for (auto end = std::chrono::steady_clock::now() + 10s; ticks() < 2 && std::chrono::steady_clock::now() < end;)
    std::this_thread::sleep_for(10ms);
  EM_DelTimer(tick);
  std::lock_guard<std::mutex> hold(journal_lock);
  EXPECT_EQ(call_list_t(calls.begin(), calls.begin() + std::min<size_t>(calls.size(), 2)),
            (call_list_t{{5, 0}, {5, 0}}));
}

TEST(Log, EveryRecordStaysOneLineWithItsFieldsEscaped) {
  fixtures::scratch_dir_t dir;
  ASSERT_TRUE(agent::open_log(dir.path("sub/dir/corvid_update.log")));
  TLogMessage(log_id_failure).append_attr(log_attr_text, "two\nlines")
      .append_attr(log_attr_text, "tab\there\r\\ \x01\x1f\x7f\xd0\xb6 end");
  { TLogMessage empty(log_id_course); }
  agent::close_log();
  std::istringstream lines(fixtures::read_file(dir.path("sub/dir/corvid_update.log")));
  std::string text;
  for (std::string line; std::getline(lines, line);)  // each begins "2024-03-05T07:08:09.123Z\t"
    text += (line.size() > 25 && line[10] == 'T' && line[23] == 'Z' ? "T" + line.substr(24) : line) + "\n";
  EXPECT_EQ(text, "T\t365\ttwo\\nlines\ttab\\there\\r\\\\ \\x01\\x1f\\x7f\xd0\xb6 end\nT\t367\n");
  // A link planted at the log's name, or a second name of another file, is not written to.
  std::filesystem::create_symlink(dir.write("target", "theirs"), dir.path("link.log"));
  std::filesystem::create_hard_link(dir.write("other", "theirs"), dir.path("hard.log"));
  EXPECT_FALSE(agent::open_log(dir.path("link.log")) || agent::open_log(dir.path("hard.log")));
  EXPECT_EQ(fixtures::read_file(dir.path("target")) + fixtures::read_file(dir.path("other")), "theirstheirs");
}

}  // namespace

namespace update::testing {
namespace {

class BridgeTest : public ModuleTest {
 protected:
  void TearDown() override { agent::stop_bridge(); ModuleTest::TearDown(); }
  // A connection, or -1 when the socket refuses this thread's user. A read
  // that waits more than five seconds fails: a drop that does not come fails
  // the test instead of hanging it.
  int raw_connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socket_.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    const timeval patience{5, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
  }
  // A connection made by a thread of its own that runs as another user: the
  // socket tells the daemon that user, as it would of another process.
  int connect_as(uid_t uid, gid_t gid, std::vector<gid_t> groups = {}) {
    int fd = -1;
    std::thread([&] {
      if (::syscall(SYS_setgroups, groups.size(), groups.data()) == 0 && ::syscall(SYS_setresgid, gid, gid, gid) == 0 &&
          ::syscall(SYS_setresuid, uid, uid, uid) == 0)
        fd = raw_connect();
    }).join();
    return fd;
  }
  // Sends a frame on fd and reads the daemon's: the reply's or the refusal's
  // serial and body, or "closed".
  static std::string exchange(int fd, const agent::frame_t& out) {
    agent::write_frame(fd, out);
    agent::frame_t in;
    if (agent::read_frame(fd, in) != agent::frame_read_t::ok) return "closed";
    return std::to_string(in.type) + "/" + std::to_string(in.serial) + ":" + in.body;
  }
  // The install question asked from a thread of its own.
  static auto ask(std::string& body, long timeout = -1, bridge::server::AnswerCheck check = nullptr) {
    return std::async(std::launch::async, [&body, timeout, check] {
      return bridge::server::NotifyClient(NotifyUpdateInstallQuestion, body, timeout, check);
    });
  }
  const std::string socket_ = scratch_.path("run/bridge.sock");
  gid_t daemon_gid_ = 0;
  // A group for the socket: members pass the directories on the way.
  void share_with_daemon_group() {
    ASSERT_TRUE(agent::group_id("daemon", daemon_gid_));
    std::filesystem::create_directories(scratch_.path("run"));
    for (const auto& dir : {scratch_.path(""), scratch_.path("run")})
      std::filesystem::permissions(dir, std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  }
};

TEST_F(BridgeTest, DaemonServesClientsOneAfterAnotherAndSurvivesBadOnes) {
  start_module();
  std::string error;
  agent::bridge_limits_t quick;
  quick.frame_ms = 100;
  // A daemon started without standard input listens on descriptor 0.
  const int input = ::dup(STDIN_FILENO);
  ::close(STDIN_FILENO);
  ASSERT_TRUE(agent::start_bridge(socket_, error, "", {}, quick)) << error;
  struct stat st;
  ASSERT_EQ(::stat(socket_.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_FALSE(agent::start_bridge(socket_, error));

  // Garbage, a body above the limit, a reply a client has no business
  // sending, a header or a body left unfinished past the frame's time: each
  // such client is dropped (the daemon closes).
  const std::string oversize("\x01\0\0\0\0\0\0\0\x06\0\0\0\x01\0\x50\0", 16);
  const std::string bad[] = {"GET / HTTP/1.0\r\n\r\n", oversize, std::string("\x02\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 16),
                             std::string("\x01\0\0\0", 4), std::string("\x01\0\0\0\0\0\0\0\x06\0\0\0\x02\0\0\0x", 17)};
  for (const auto& bytes : bad) {
    const int fd = raw_connect();
    ASSERT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    char c;
    EXPECT_EQ(::read(fd, &c, 1), 0) << bytes.size();
    ::close(fd);
  }
  EXPECT_EQ(log_.all("dropped: malformed frame").size(), std::size(bad));

  agent::bridge_client_t client;
  ASSERT_TRUE(client.connect(socket_, error)) << error;
  bool result = false;
  std::string reply;
  ASSERT_TRUE(client.call(6, "", result, reply, nullptr, error)) << error;
  EXPECT_TRUE(result);
  EXPECT_EQ(reply, std::string("\0\0\0\0", 4));  // undefined: nothing on disk yet
  ASSERT_TRUE(client.call(6, "1234567", result, reply, nullptr, error));  // the listener threw
  EXPECT_FALSE(result);

  // A question goes only to a client that offered answers, and waits for it.
  std::string body = "question";
  EXPECT_FALSE(bridge::server::NotifyClientAndWaitResponse(NotifyUpdateInstallQuestion, body, -1));
  ASSERT_TRUE(client.offer_answers(error)) << error;
  auto answered = std::async(std::launch::async, [&body] {
    return bridge::server::NotifyClientAndWaitResponse(NotifyUpdateInstallQuestion, body, -1);
  });
  std::string asked;
  auto answer_yes = [&](uint32_t id, std::string& b) { asked = std::to_string(id) + ":" + b; b = "\x01"; return true; };
  while (asked.empty()) ASSERT_TRUE(client.wait(50, answer_yes, error)) << error;
  EXPECT_TRUE(answered.get());
  EXPECT_EQ(asked, "6:question");
  EXPECT_EQ(body, "\x01");

  // The latest to offer is asked. Its offer and the reply are written out
  // byte for byte: little-endian type, serial, value and body length. The
  // first such client goes away at the question (a no); the second answers
  // it with an empty body, is dropped for it, and the question goes on to
  // the first client, which answers it properly.
  for (const bool garbage : {false, true}) {
    const int latest = raw_connect();
    const std::string offer("\x05\0\0\0\x07\0\0\0\x01\0\0\0\0\0\0\0", 16);
    ASSERT_EQ(::write(latest, offer.data(), offer.size()), 16);
    char replied[16];
    ASSERT_EQ(::read(latest, replied, sizeof replied), 16);
    EXPECT_EQ(std::string(replied, 16), std::string("\x02\0\0\0\x07\0\0\0\x01\0\0\0\0\0\0\0", 16));
    body = "again";
    auto outcome = ask(body, -1, readable_answer);
    agent::frame_t frame;
    ASSERT_EQ(agent::read_frame(latest, frame), agent::frame_read_t::ok);
    EXPECT_EQ(frame.type, agent::frame_notification);
    if (!garbage) {
      ::close(latest);
      EXPECT_EQ(outcome.get(), bridge::server::NotifyOutcome::gone);
      continue;
    }
    ASSERT_TRUE(agent::write_frame(latest, {agent::frame_answer, frame.serial, 1, ""}));
    char c;
    EXPECT_EQ(::read(latest, &c, 1), 0);
    ::close(latest);
    asked.clear();
    while (asked.empty()) ASSERT_TRUE(client.wait(50, answer_yes, error)) << error;
    EXPECT_EQ(outcome.get(), bridge::server::NotifyOutcome::answered);
    EXPECT_EQ(asked, "6:again");
  }

  // Stopping removes the socket, and a question after it is not taken for one nobody objected to.
  agent::stop_bridge();
  EXPECT_NE(::stat(socket_.c_str(), &st), 0);
  std::string late = "late";
  EXPECT_EQ(bridge::server::NotifyClient(NotifyUpdateInstallQuestion, late, -1, readable_answer),
            bridge::server::NotifyOutcome::stopped);
  EXPECT_EQ(::dup2(input, STDIN_FILENO), STDIN_FILENO);  // closed by the stop
}

// Who a client is comes from the socket. Another user cannot connect; a user
// who may gets at most 16 places, and none of the last 16 of 64, which are
// root's and the daemon's user's; commands need root. Each row is one more
// connection, or one more than a limit.
TEST_F(BridgeTest, CapsEachUserAndKeepsTheLastPlacesForRoot) {
  share_with_daemon_group();
  std::string error;
  ASSERT_TRUE(agent::start_bridge(socket_, error, "daemon")) << error;
  EXPECT_EQ(connect_as(65534, 65534), -1);
  const std::string refused = "6/1:not permitted: commands need root", full = "6/0:too many connections";
  const struct { uid_t uid; int count; std::string says; } rows[] = {
      {65534, 16, refused}, {65534, 1, full}, {1, 16, refused}, {2, 16, refused},
      {3, 1, full},         {0, 16, "2/1:"}, {0, 1, full}};
  std::vector<int> fds;
  for (const auto& row : rows) {
    for (int i = 0; i < row.count; ++i) {
      fds.push_back(connect_as(row.uid, daemon_gid_));
      ASSERT_EQ(exchange(fds.back(), {agent::frame_command, 1, 6, ""}), row.says) << row.uid << " #" << i;
    }
  }
  for (int fd : fds) ::close(fd);
}

// The question goes to the client that offered last among those that may
// answer: root, the daemon's user, and the group's members by the user
// database, not by a process's extra groups. A member keeps it against other
// members until its time runs out; root offering takes it over, and the
// member's late answer is dropped. One that takes nothing in is dropped.
TEST_F(BridgeTest, AsksTheLatestWhoMayAnswerAndLetsRootTakeOver) {
  share_with_daemon_group();
  std::string error;
  agent::bridge_limits_t quick;
  quick.send_s = 1;
  ASSERT_TRUE(agent::start_bridge(socket_, error, "daemon", {}, quick)) << error;
  const agent::frame_t offer{agent::frame_answering, 1, 1, ""};
  EXPECT_EQ(exchange(connect_as(3, 3, {daemon_gid_}), offer),
            "6/1:not permitted: only root, the daemon's user or the group daemon answer the update's questions");
  const int first = connect_as(65534, daemon_gid_), second = connect_as(1, 65534, {daemon_gid_});
  EXPECT_EQ(exchange(first, offer), "2/1:");
  EXPECT_EQ(exchange(second, offer), "2/1:");
  std::string body = "question";
  auto held = ask(body, 500);
  agent::frame_t question;
  ASSERT_EQ(agent::read_frame(second, question), agent::frame_read_t::ok);
  EXPECT_EQ(question.body, "question");
  EXPECT_EQ(exchange(first, offer), "2/1:");
  EXPECT_EQ(held.get(), bridge::server::NotifyOutcome::timed_out);
  pollfd ready{first, POLLIN, 0};
  EXPECT_EQ(::poll(&ready, 1, 0), 0);

  body = "again";
  auto taken = ask(body);
  ASSERT_EQ(agent::read_frame(first, question), agent::frame_read_t::ok);
  const int root = connect_as(0, 0);
  ASSERT_TRUE(agent::write_frame(root, offer));
  agent::frame_t frames[2];
  for (auto& frame : frames) ASSERT_EQ(agent::read_frame(root, frame), agent::frame_read_t::ok);
  if (frames[0].type != agent::frame_notification) std::swap(frames[0], frames[1]);
  EXPECT_EQ(frames[0].body + "|" + std::to_string(frames[1].type), "again|2");
  ASSERT_TRUE(agent::write_frame(first, {agent::frame_answer, question.serial, 1, "member"}));
  ASSERT_TRUE(agent::write_frame(root, {agent::frame_answer, frames[0].serial, 1, "root"}));
  EXPECT_EQ(taken.get(), bridge::server::NotifyOutcome::answered);
  EXPECT_EQ(body, "root");
  EXPECT_EQ(log_.all("taken over from client 2 (uid 65534").size(), 1u);

  const int deaf = connect_as(0, 0);
  EXPECT_EQ(exchange(deaf, offer), "2/1:");
  body.assign(agent::frame_body_limit, 'x');
  auto flooded = ask(body);
  ASSERT_EQ(flooded.wait_for(std::chrono::seconds(30)), std::future_status::ready);
  EXPECT_EQ(flooded.get(), bridge::server::NotifyOutcome::gone);
  char sink[65536];
  ssize_t got;
  while ((got = ::read(deaf, sink, sizeof sink)) > 0) {
  }
  EXPECT_EQ(got, 0);  // closed by the daemon
}

}  // namespace
}  // namespace update::testing
