// The event manager: one worker, calls in order, timers, and every queued
// call handed back with its cancel field set when the manager stops.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "agent/agent.h"
#include "platform/event_manager.h"

namespace {

using namespace std::chrono_literals;
using call_list_t = std::vector<std::pair<int, int32_t>>;  // tag, cancel

// Every call made, with its tag (carried as the argument) and its thread.
std::mutex journal_lock;
call_list_t calls;                     // guarded by journal_lock
std::vector<std::thread::id> threads;  // guarded by journal_lock
std::promise<void> release;

int tag_of(em_call_t* call) { return static_cast<int>(reinterpret_cast<intptr_t>(call->arg)); }
void* tag(int t) { return reinterpret_cast<void*>(static_cast<intptr_t>(t)); }
size_t call_count() {
  std::lock_guard<std::mutex> hold(journal_lock);
  return calls.size();
}

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

bool wait_for_calls(size_t count) {
  const auto limit = std::chrono::steady_clock::now() + 5s;
  while (call_count() < count && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(5ms);
  return call_count() >= count;
}

// Each test runs in its own process, so the journal starts empty.
class EventManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { agent::start_event_manager(); }
  void TearDown() override { agent::stop_event_manager(); }
};

TEST_F(EventManagerTest, RunsCallsInOrderOnOneWorkerThread) {
  for (int i = 0; i < 50; ++i) ASSERT_EQ(EM_AsyncCall(i % 7 == 0 ? queue_follow_up : record, tag(i)), 0);
  agent::drain_event_manager();
  ASSERT_EQ(calls.size(), 50u + 8u);  // drain also waits for the follow-ups
  int next = 0;
  for (const auto& [t, cancel] : calls) {
    EXPECT_EQ(cancel, 0);
    if (t < 100) {
      EXPECT_EQ(t, next++);
    }
  }
  for (const auto& id : threads) {
    EXPECT_EQ(id, threads.front());
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

// A run that threw can never end, so the process must, for a service
// manager to start it again.
TEST_F(EventManagerTest, AnExceptionLeavingACallEndsTheProcessWithItsText) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        EM_AsyncCall([](em_call_t*) { throw std::runtime_error("disk on fire"); }, nullptr);
        std::this_thread::sleep_for(std::chrono::seconds(30));
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
  ASSERT_TRUE(wait_for_calls(1));
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

std::atomic<int> periodic_runs{0};
void periodic(em_call_t*) {
  if (++periodic_runs == 1) EM_DelTimer(periodic);
}

TEST_F(EventManagerTest, TimersFireWhenDueAndStopWhenDeleted) {
  // A one-shot timer fires once; arming it again re-arms the same timer.
  ASSERT_EQ(EM_SetTimer(60, 0, record, tag(7)), 0);
  ASSERT_EQ(EM_SetTimer(0, 0, record, tag(8)), 0);
  ASSERT_TRUE(wait_for_calls(1));
  EXPECT_EQ(calls.front(), std::make_pair(8, int32_t{0}));

  // A periodic timer deleted from its own first call never comes back.
  ASSERT_EQ(EM_SetTimer(0, 1, periodic, nullptr), 0);
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(periodic_runs, 1);
  EXPECT_EQ(call_count(), 1u);
}

}  // namespace
