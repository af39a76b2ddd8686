// A module with its agent root in a fresh temporary directory, a running
// event manager, a record of every log line, and a way to hold the update
// worker inside a run.
#pragma once
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "frame/curl_init.h"
#include "frame/update.h"
#include "status/status_fixture.h"

namespace update::testing {

// Swapped in for the run's curl_easy_init (or queued as a plain call): the
// worker stops there until the test lets it go, and a run then fails its
// start-up with no handle.
struct held_run_t {
  static CURL* hold() {
    std::unique_lock<std::mutex> lock(m);
    ++entered;
    cv.notify_all();
    cv.wait(lock, [] { return released; });
    return nullptr;
  }
  static void wait_entered() { std::unique_lock<std::mutex> lock(m); cv.wait(lock, [] { return entered > 0; }); }
  static void release() { std::lock_guard<std::mutex> lock(m); released = true; cv.notify_all(); }
  static inline std::mutex m;
  static inline std::condition_variable cv;
  static inline int entered = 0;        // guarded by m once the worker runs
  static inline bool released = false;  // guarded by m
};

class ModuleTest : public StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    held_run_t::entered = 0;
    held_run_t::released = false;
    agent::configure_paths(agent::paths_under(root_));
    LPARAMS::server::set_update_dir(update_dir_);
    callbacks().on_status = [](const std::string&, const std::string&) {};
    callbacks().on_client_command = [](size_t, const char*) { return false; };
    agent::start_event_manager();
  }
  void TearDown() override {
    held_run_t::release();
    fini();
    agent::stop_event_manager();
    run_curl_init = curl_easy_init;
    StatusTest::TearDown();
  }

  // init and its finish_init on the worker: the module is open afterwards.
  void start_module() { init(); agent::drain_event_manager(); ASSERT_NE(current_module_state(), module_stopped); }
  void submit(Command command, const std::list<std::string>& uris, const std::string& cmdid = "") {
    process_async(command, uris, cmdid, 0, "", "", TLogIdent{});
  }
  void run_and_wait(Command command, const std::list<std::string>& uris) {
    submit(command, uris);
    agent::drain_event_manager();
  }
  // get_status into texts preset to "untouched", to tell an answer from none.
  static std::pair<std::string, std::string> status_line(bool force) {
    std::string state = "untouched", message = "untouched";
    get_status(state, message, force);
    return {state, message};
  }

  fixtures::scratch_dir_t& scratch_ = dir_;
  const std::string root_ = scratch_.path().substr(0, scratch_.path().size() - 1);
  const std::string update_dir_ = root_ + "/update";
};

}  // namespace update::testing
