// The module's state machine: one run, one pending slot that replaces,
// start-up before anything runs, stop during a run.
#include <gtest/gtest.h>

#include "frame/frame_fixture.h"

namespace update {
namespace {

using testing::held_run_t;

class StateMachineTest : public testing::ModuleTest {};

const std::pair<std::string, std::string> untouched = {"untouched", "untouched"};
const std::string no_uri = "Download error: URI not specified (should be obtained from the Policy Managment Server)";

TEST_F(StateMachineTest, PendingSlotKeepsOnlyTheLatestCommand) {
  start_module();
  run_curl_init = held_run_t::hold;
  submit(Command::check, {"http://127.0.0.1:1/"}, "first");
  held_run_t::wait_entered();
  ASSERT_EQ(current_module_state(), module_busy);

  submit(Command::download, {"http://127.0.0.1:1/"}, "second");
  submit(Command::install, {"http://127.0.0.1:1/"}, "third");
  EXPECT_EQ(count_logged(log_id_course, {"request pended", "processing previous update request"}), 2u);

  held_run_t::release();
  agent::drain_event_manager();
  // The first run and the third: the second was replaced without a trace.
  EXPECT_EQ(held_run_t::entered, 2);
  EXPECT_EQ(count_logged(log_id_course, {"start", "processing command: check (first)"}), 1u);
  EXPECT_EQ(count_logged(log_id_course, {"start", "processing command: download (second)"}), 0u);
  EXPECT_EQ(count_logged(log_id_course, {"start", "processing command: install (third)"}), 1u);
  EXPECT_EQ(current_module_state(), module_idle);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.cmd, "install");
  EXPECT_EQ(status.cmdid, "third");
}

TEST_F(StateMachineTest, CommandBeforeStartupWaitsForFinishInit) {
  // Keep the worker busy so that finish_init stays queued behind it.
  EM_AsyncCall([](em_call_t*) { held_run_t::hold(); }, nullptr);
  init();
  submit(Command::check, {}, "early");
  EXPECT_EQ(count_logged(log_id_course, {"request pended", "module UPDATE initializing"}), 1u);
  EXPECT_EQ(current_module_state(), module_stopped);
  EXPECT_EQ(status_line(true), untouched);

  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(count_logged(log_id_course, {"start", "processing command: check (early)"}), 1u);
  EXPECT_EQ(current_module_state(), module_idle);
  EXPECT_EQ(status_line(false).second, "update_msg=" + no_uri);
}

TEST_F(StateMachineTest, FiniDuringRunDropsPendingAndStaysStopped) {
  start_module();
  run_curl_init = held_run_t::hold;
  submit(Command::check, {"http://127.0.0.1:1/"}, "running");
  held_run_t::wait_entered();
  submit(Command::install, {"http://127.0.0.1:1/"}, "pending");
  fini();
  EXPECT_EQ(current_module_state(), module_stopped);

  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(held_run_t::entered, 1);
  EXPECT_EQ(current_module_state(), module_stopped);
  {
    std::lock_guard<std::mutex> hold(module_lock);
    EXPECT_EQ(pending_request, nullptr);
  }
  // The run itself walked to its end.
  EXPECT_EQ(count_logged(log_id_course, {"done", "command: check, result: error"}), 1u);
  // A submit after fini waits in the slot for good.
  submit(Command::check, {}, "late");
  agent::drain_event_manager();
  EXPECT_EQ(count_logged(log_id_course, {"start", "processing command: check (late)"}), 0u);
  EXPECT_EQ(status_line(true), untouched);
}

TEST_F(StateMachineTest, AbandonedCallFreesTheRequestAndLeavesBusy) {
  start_module();
  {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = module_busy;
  }
  // The request would be reported as a leak under the sanitizer if kept.
  em_call_t call{new request_t(Command::check, {"x"}), nullptr, 1};
  run_request(&call);
  EXPECT_EQ(current_module_state(), module_busy);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_TRUE(status.cmd.empty());
  EXPECT_EQ(count_logged(log_id_course, {"start"}), 1u);  // only init's own "start"
}

TEST(UpdateDirPath, StripsTrailingSeparatorsOrFallsBackToTheVarDirectory) {
  agent::configure_paths(agent::paths_under("/srv/agent"));
  const std::pair<const char*, const char*> rows[] = {
      {"", "/srv/agent/var/update"}, {"/data/upd\\/\\//", "/data/upd"}, {"/", "/"}, {"\\/\\", "\\/\\"},
  };
  for (const auto& [configured, expected] : rows) {
    LPARAMS::server::set_update_dir(configured);
    std::string path = "stale";
    update_dir_path(path);
    EXPECT_EQ(path, expected) << "configured: " << configured;
  }
  LPARAMS::server::set_update_dir("");
  agent::configure_paths(agent::default_paths());
}

}  // namespace
}  // namespace update
