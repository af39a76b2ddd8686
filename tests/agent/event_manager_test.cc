// The event manager: one worker, calls in order, timers, and every queued
// call handed back with its cancel field set when the manager stops.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "agent/agent.h"
#include "platform/event_manager.h"

namespace {

struct journal_t {
  std::mutex m;
  std::condition_variable cv;
  std::vector<std::pair<int, int32_t>> calls;  // tag, cancel
  std::vector<std::thread::id> threads;
  bool release = false;

  void add(int tag, int32_t cancel) {
    std::lock_guard<std::mutex> hold(m);
    calls.emplace_back(tag, cancel);
    threads.push_back(std::this_thread::get_id());
    cv.notify_all();
  }
  size_t size() {
    std::lock_guard<std::mutex> hold(m);
    return calls.size();
  }
};

journal_t* journal = nullptr;

// Each call carries its tag as the argument.
void record(em_call_t* call) { journal->add(static_cast<int>(reinterpret_cast<intptr_t>(call->arg)), call->cancel); }
void* tag(int t) { return reinterpret_cast<void*>(static_cast<intptr_t>(t)); }

void block_until_released(em_call_t* call) {
  record(call);
  std::unique_lock<std::mutex> hold(journal->m);
  journal->cv.wait(hold, [] { return journal->release; });
}

// Queues a follow-up, as the module's worker does when it dispatches.
void queue_follow_up(em_call_t* call) {
  record(call);
  EM_AsyncCall(record, tag(100 + static_cast<int>(reinterpret_cast<intptr_t>(call->arg))));
}

class EventManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    journal = &journal_;
    agent::start_event_manager();
  }
  void TearDown() override {
    {
      std::lock_guard<std::mutex> hold(journal_.m);
      journal_.release = true;
    }
    journal_.cv.notify_all();
    agent::stop_event_manager();
    journal = nullptr;
  }
  journal_t journal_;
};

TEST_F(EventManagerTest, RunsCallsInOrderOnOneWorkerThread) {
  for (int i = 0; i < 50; ++i) ASSERT_EQ(EM_AsyncCall(i % 7 == 0 ? queue_follow_up : record, tag(i)), 0);
  agent::drain_event_manager();
  std::vector<int> tags;
  for (const auto& [t, cancel] : journal_.calls) {
    tags.push_back(t);
    EXPECT_EQ(cancel, 0);
  }
  ASSERT_EQ(tags.size(), 50u + 8u);  // drain also waits for the follow-ups
  std::vector<int> queued;
  for (int t : tags)
    if (t < 100) queued.push_back(t);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(queued[i], i);
  for (const auto& id : journal_.threads) {
    EXPECT_EQ(id, journal_.threads.front());
    EXPECT_NE(id, std::this_thread::get_id());
  }
}

TEST_F(EventManagerTest, StopHandsQueuedCallsBackCancelled) {
  EM_AsyncCall(block_until_released, tag(1));
  EM_AsyncCall(queue_follow_up, tag(2));
  EM_AsyncCall(record, tag(3));
  while (journal_.size() < 1) std::this_thread::yield();
  std::thread stopper([] { agent::stop_event_manager(); });
  // A manager that is stopping refuses timers: the stop has begun.
  while (EM_SetTimer(100, 0, record, tag(9)) == 0) std::this_thread::yield();
  {
    std::lock_guard<std::mutex> hold(journal_.m);
    journal_.release = true;
  }
  journal_.cv.notify_all();
  stopper.join();
  const std::vector<std::pair<int, int32_t>> expected = {{1, 0}, {2, 1}, {3, 1}, {102, 1}};
  EXPECT_EQ(journal_.calls, expected);

  // Once stopped, a call is handed back at once, cancelled, on the caller.
  EXPECT_NE(EM_AsyncCall(record, tag(4)), 0);
  EXPECT_EQ(journal_.calls.back(), std::make_pair(4, int32_t{1}));
  EXPECT_EQ(journal_.threads.back(), std::this_thread::get_id());
}

std::atomic<int> periodic_runs{0};
void periodic(em_call_t*) {
  if (++periodic_runs == 1) EM_DelTimer(periodic);
}

TEST_F(EventManagerTest, TimersFireWhenDueAndStopWhenDeleted) {
  // A one-shot timer fires once; arming it again re-arms the same timer.
  ASSERT_EQ(EM_SetTimer(60, 0, record, tag(7)), 0);
  ASSERT_EQ(EM_SetTimer(0, 0, record, tag(8)), 0);
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (journal_.size() < 1 && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  ASSERT_EQ(journal_.size(), 1u);
  EXPECT_EQ(journal_.calls.front(), std::make_pair(8, int32_t{0}));

  // A periodic timer deleted from its own first call never comes back.
  periodic_runs = 0;
  ASSERT_EQ(EM_SetTimer(0, 1, periodic, nullptr), 0);
  while (periodic_runs == 0 && std::chrono::steady_clock::now() < limit) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::this_thread::sleep_for(std::chrono::milliseconds(1300));
  EXPECT_EQ(periodic_runs, 1);
  EXPECT_EQ(journal_.size(), 1u);
}

void throw_from_call(em_call_t*) { throw std::runtime_error("lost"); }

TEST_F(EventManagerTest, CallThatThrowsDoesNotEndTheWorker) {
  EM_AsyncCall(throw_from_call, nullptr);
  EM_AsyncCall(record, tag(5));
  agent::drain_event_manager();
  ASSERT_EQ(journal_.size(), 1u);
  EXPECT_EQ(journal_.calls.front().first, 5);
}

}  // namespace
