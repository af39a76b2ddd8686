// A module with its agent root in a fresh temporary directory, a running
// event manager, a record of every log line, and a way to hold the update
// worker inside a run.
#pragma once
#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "fixtures/nginx_server.h"
#include "frame/curl_init.h"
#include "frame/module.h"
#include "frame/update.h"
#include "platform/local_params.h"
#include "status/status.h"

namespace update::testing {

struct logged_t {
  uint16_t id;
  std::vector<std::string> attrs;
};

// Swapped in for the run's curl_easy_init: the worker stops there until the
// test lets it go, and the run then fails its start-up with no handle.
struct held_run_t {
  static CURL* hold() {
    std::unique_lock<std::mutex> lock(m);
    ++entered_count;
    cv.notify_all();
    cv.wait(lock, [] { return released; });
    return nullptr;
  }
  static void wait_entered(int count) {
    std::unique_lock<std::mutex> lock(m);
    cv.wait(lock, [&] { return entered_count >= count; });
  }
  static void release() {
    std::lock_guard<std::mutex> lock(m);
    released = true;
    cv.notify_all();
  }
  static int entered() {
    std::lock_guard<std::mutex> lock(m);
    return entered_count;
  }
  static inline std::mutex m;
  static inline std::condition_variable cv;
  static inline int entered_count = 0;  // guarded by m
  static inline bool released = false;  // guarded by m
};

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = fixtures::make_temp_dir("frame");
    ASSERT_FALSE(root_.empty());
    reset_module_for_tests();
    held_run_t::entered_count = 0;
    held_run_t::released = false;
    agent::configure_paths(agent::paths_under(root_));
    update_dir_ = root_ + "/update";
    LPARAMS::server::set_update_dir(update_dir_);
    callbacks().on_status = [](const std::string&, const std::string&) {};
    callbacks().on_client_command = [](size_t, const char*) { return false; };
    observer_ = agent::add_log_observer([this](uint16_t id, const std::vector<std::string>& attrs) {
      std::lock_guard<std::mutex> hold(log_lock_);
      log_.push_back({id, attrs});
    });
    agent::start_event_manager();
  }

  void TearDown() override {
    held_run_t::release();
    fini();
    agent::stop_event_manager();
    agent::remove_log_observer(observer_);
    run_curl_init = curl_easy_init;
    reset_module_for_tests();
    LPARAMS::server::set_update_dir("");
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  // init and its finish_init on the worker: the module is open afterwards.
  void start_module() {
    init();
    agent::drain_event_manager();
    ASSERT_NE(current_module_state(), module_stopped);
  }

  void submit(Command command, const std::list<std::string>& uris, const std::string& cmdid = "") {
    process_async(command, uris, cmdid, 0, "", "", TLogIdent{});
  }

  // Log records whose attributes begin with these texts.
  size_t count_logged(uint16_t id, const std::vector<std::string>& attrs) {
    std::lock_guard<std::mutex> hold(log_lock_);
    size_t n = 0;
    for (const auto& r : log_) {
      if (r.id != id || r.attrs.size() < attrs.size()) continue;
      if (std::equal(attrs.begin(), attrs.end(), r.attrs.begin())) ++n;
    }
    return n;
  }

  static std::string first_message_text() {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.messages.empty() ? "<none>" : status.messages.front().text;
  }

  std::string root_;
  std::string update_dir_;

 private:
  int observer_ = 0;
  std::mutex log_lock_;
  std::vector<logged_t> log_;
};

}  // namespace update::testing
