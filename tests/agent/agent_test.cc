// The agent's services to the module: the event manager (one worker, calls
// in order, every queued call handed back cancelled at stop), the log (one
// line per record, whatever its attributes hold) and the two file helpers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <future>
#include <mutex>
#include <regex>
#include <thread>

#include "agent/agent.h"
#include "fixtures/scratch_dir.h"
#include "platform/agent_paths.h"
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
void queue_follow_up(em_call_t* call) {
  record(call);
  EM_AsyncCall(record, tag(100 + tag_of(call)));
}

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
      [](em_call_t* call) {
        record(call);
        release.get_future().wait();
      },
      tag(1));
  EM_AsyncCall(queue_follow_up, tag(2));
  EM_AsyncCall(record, tag(3));
  for (auto limit = std::chrono::steady_clock::now() + 5s; std::chrono::steady_clock::now() < limit;) {
    std::lock_guard<std::mutex> hold(journal_lock);
    if (!calls.empty()) break;
  }
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

TEST(Log, EveryRecordStaysOneLineWithItsFieldsEscaped) {
  fixtures::scratch_dir_t dir;
  ASSERT_TRUE(agent::open_log(dir.path("sub/dir/corvid_update.log")));
  TLogMessage(log_id_failure).append_attr(log_attr_text, "two\nlines").append_attr(log_attr_text, "tab\there\r\\ \x01 end");
  { TLogMessage empty(log_id_course); }
  agent::close_log();
  const std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\t)");
  const std::string text = fixtures::read_file(dir.path("sub/dir/corvid_update.log"));
  EXPECT_EQ(std::regex_replace(text, line, "T\t"), "T\t365\ttwo\\nlines\ttab\\there\\r\\\\ \\x01 end\nT\t367\n");
}

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & (S_IFMT | 0777) : 0;
}

TEST(AgentFs, MakesDirectoriesForTheOwnerAndMakesACompanionWritable) {
  fixtures::scratch_dir_t dir;
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir.path("a/b//c/")), 0);
  EXPECT_EQ(mode_of(dir.path("a/b/c")), S_IFDIR | 0700u);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir.path("a/b//c/")), 0);  // existing is fine
  const std::string file = dir.write("f", "x");
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(file + "/under"), -1);

  const std::string bak = dir.write("f.bak", "old");
  ASSERT_EQ(chmod(bak.c_str(), 0444), 0);
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(bak, file), 0);
  EXPECT_EQ(mode_of(bak), S_IFREG | 0644u);
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(dir.path("none.bak"), file), 0);  // none yet
}

}  // namespace
