// The agent's event manager: one worker thread that runs queued calls in
// order and timers when they fall due. Calls and timers run outside the
// manager's lock, so a procedure may queue further calls or change timers.
#include "platform/event_manager.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "agent/agent.h"
#include "platform/log.h"

namespace agent {

namespace {

using steady = std::chrono::steady_clock;

struct queued_call_t {
  em_proc_t proc;
  void* arg;
};

struct armed_timer_t {
  steady::time_point due;
  std::chrono::seconds period;  // zero: once
  void* arg;
};

struct manager_t {
  std::mutex lock;
  std::condition_variable wake;     // new work, a timer change, or stop
  std::condition_variable drained;  // queue empty and worker idle
  std::deque<queued_call_t> queue;       // guarded by lock
  std::map<em_proc_t, armed_timer_t> timers;  // guarded by lock
  bool accepting = false;                // guarded by lock
  bool stopping = false;                 // guarded by lock
  bool busy = false;                     // guarded by lock
  std::thread worker;                    // started and joined under control_lock
  std::mutex control_lock;               // serialises start and stop
};

// Never destroyed: a worker a host forgot to stop must not meet a dead
// manager (or std::terminate) while the process exits.
manager_t& manager() {
  static manager_t& m = *new manager_t;
  return m;
}

// What a procedure lets escape leaves the module in a state nobody can
// vouch for (a run that never ended keeps it busy for ever), so the process
// ends with a failure: a service manager starts it again, and start-up finds
// the interrupted run in the status file.
[[noreturn]] void end_process(const std::string& what) {
  const std::string text = "event manager: a queued call ended with an exception: " + what;
  {
    TLogMessage log(log_id_failure);
    log.append_attr(log_attr_text, text);
  }
  std::fprintf(stderr, "%s\n", text.c_str());
  std::fflush(stderr);
  std::_Exit(EXIT_FAILURE);
}

void call(em_proc_t proc, void* arg, bool cancel) {
  em_call_t record{arg, nullptr, cancel ? 1 : 0};
  try {
    proc(&record);
  } catch (const std::exception& e) {
    end_process(e.what());
  } catch (const char* text) {
    end_process(text ? text : "");
  } catch (...) {
    end_process("of an unknown type");
  }
}

void work() {
  manager_t& m = manager();
  std::unique_lock<std::mutex> hold(m.lock);
  for (;;) {
    if (m.stopping) {
      // Whatever is still queued, and whatever those calls queue in turn,
      // is run abandoned so that its owner frees its argument.
      if (m.queue.empty()) {
        m.accepting = false;
        m.busy = false;
        m.drained.notify_all();
        return;
      }
      queued_call_t next = m.queue.front();
      m.queue.pop_front();
      hold.unlock();
      call(next.proc, next.arg, true);
      hold.lock();
      continue;
    }
    if (!m.queue.empty()) {
      queued_call_t next = m.queue.front();
      m.queue.pop_front();
      m.busy = true;
      hold.unlock();
      call(next.proc, next.arg, false);
      hold.lock();
      m.busy = false;
      continue;
    }
    // Timers come after queued calls, and one at a time, so that a queue
    // refilled by a timer is served first again.
    auto earliest = m.timers.end();
    for (auto it = m.timers.begin(); it != m.timers.end(); ++it)
      if (earliest == m.timers.end() || it->second.due < earliest->second.due) earliest = it;
    const auto now = steady::now();
    if (earliest != m.timers.end() && earliest->second.due <= now) {
      const em_proc_t proc = earliest->first;
      void* arg = earliest->second.arg;
      if (earliest->second.period.count() == 0) {
        m.timers.erase(earliest);
      } else {
        earliest->second.due = now + earliest->second.period;
      }
      m.busy = true;
      hold.unlock();
      call(proc, arg, false);
      hold.lock();
      m.busy = false;
      continue;
    }
    m.drained.notify_all();
    if (earliest == m.timers.end()) {
      m.wake.wait(hold);
    } else {
      // A copy: the wait reads it again after the lock was let go, when the
      // timer may have been deleted.
      const steady::time_point due = earliest->second.due;
      m.wake.wait_until(hold, due);
    }
  }
}

}  // namespace

void start_event_manager() {
  manager_t& m = manager();
  std::lock_guard<std::mutex> control(m.control_lock);
  {
    std::lock_guard<std::mutex> hold(m.lock);
    if (m.accepting) return;
    m.accepting = true;
    m.stopping = false;
  }
  m.worker = std::thread(work);
}

void stop_event_manager() {
  manager_t& m = manager();
  std::lock_guard<std::mutex> control(m.control_lock);
  if (!m.worker.joinable()) return;
  {
    std::lock_guard<std::mutex> hold(m.lock);
    m.stopping = true;
    m.timers.clear();
  }
  m.wake.notify_all();
  if (m.worker.get_id() == std::this_thread::get_id()) {
    m.worker.detach();  // stopped from one of its own calls: it ends by itself
  } else {
    m.worker.join();
  }
}

void drain_event_manager() {
  manager_t& m = manager();
  std::unique_lock<std::mutex> hold(m.lock);
  m.drained.wait(hold, [&] { return !m.accepting || (m.queue.empty() && !m.busy); });
}

bool drain_event_manager_for(int milliseconds) {
  manager_t& m = manager();
  std::unique_lock<std::mutex> hold(m.lock);
  return m.drained.wait_for(hold, std::chrono::milliseconds(milliseconds),
                            [&] { return !m.accepting || (m.queue.empty() && !m.busy); });
}

}  // namespace agent

int EM_AsyncCall(em_proc_t proc, void* arg) {
  agent::manager_t& m = agent::manager();
  {
    std::lock_guard<std::mutex> hold(m.lock);
    if (m.accepting) {
      m.queue.push_back({proc, arg});
      m.wake.notify_one();
      return 0;
    }
  }
  agent::call(proc, arg, true);
  return -1;
}

int EM_SetTimer(int delay_seconds, int period_seconds, em_proc_t proc, void* arg) {
  agent::manager_t& m = agent::manager();
  std::lock_guard<std::mutex> hold(m.lock);
  if (!m.accepting || m.stopping) return -1;
  m.timers[proc] = {agent::steady::now() + std::chrono::seconds(delay_seconds > 0 ? delay_seconds : 0),
                    std::chrono::seconds(period_seconds > 0 ? period_seconds : 0), arg};
  m.wake.notify_one();
  return 0;
}

int EM_DelTimer(em_proc_t proc) {
  agent::manager_t& m = agent::manager();
  std::lock_guard<std::mutex> hold(m.lock);
  m.timers.erase(proc);
  return 0;
}
