// The module's life: start-up (a finished run told from a cut-off one, and
// what it says of what it finds on disk), the state machine (one run, one
// pending slot that replaces, stop during a run) and the listener's codes.
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>

#include "frame/frame_fixture.h"
#include "frame/listener.h"
#include "frame/startup.h"
#include "install/path_vars.h"
#include "platform/agent_paths.h"

namespace update::testing {
namespace {

using StartupTest = ModuleTest;

TEST(Plausibility, TellsAFinishedRunFromACutOffOne) {
  const struct { const char* what; std::vector<std::pair<int, const char*>> files; bool with_message, plausible; } rows[] = {
      {"resting states without error", {{1, ""}, {4, ""}, {6, ""}}, false, true},
      {"downloaded with error", {{4, "e"}}, true, false}, {"install cut off", {{5, ""}}, true, false},
      {"failed download with its message", {{1, ""}, {3, "e"}}, true, true},
      {"failed check and install with their message", {{2, "e"}, {5, "e"}}, true, true},
      {"error but no message", {{2, "e"}}, false, false}, {"state read as 0", {{0, ""}}, true, false},
  };
  for (const auto& row : rows) {
    status_t s;
    for (const auto& [state, error] : row.files) {
      file_status_t& f = s.files.emplace_back();
      f.state = static_cast<file_state_t>(state), f.error = error;
    }
    if (row.with_message) s.messages.push_back({"u", "", 0});
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    EXPECT_EQ(status_is_plausible(s), row.plausible) << row.what;
  }
}

// Nothing on disk; a description it cannot use, whose errors must not reach a file; only a description to
// seed the status from; a status the version records overtook, which the file must learn; a cut-off run.
TEST_F(StartupTest, AnswersWhatItFindsOnDisk) {
  const std::string seed = "[corvid]\nversion=" + productVersion() + "\nfile=a.bin\nhash=#SHA256:00\nexec=x\n";
  const struct {
    std::vector<std::pair<std::string, std::string>> files;  // in the update directory
    std::string answer;                                       // get_status after start-up
    std::vector<std::string> xml;                             // in the status text
    bool saved;
  } rows[] = {
      {{}, "update_state=error|update_msg=update status undefined",
       {"<update-status result=\"undefined\"><message>no update status</message></update-status>"}, false},
      {{{"corvid_update.ini", "[corvid]\nversion=1.1\nfile=a.bin\nexec=true\n"}},
       "update_state=error|update_msg=No update status",
       {">No update status</message>", "uri=\"localhost\"", "missing required field 'hash'"}, false},
      {{{"corvid_update.ini", seed}}, "update_state=uptodate|untouched",
       {"<update-status result=\"uptodate\"", "\"a.bin\" state=\"uptodate\""}, true},
      {{{"corvid_update_status.xml", "<update-status><file name=\"a\" state=\"downloaded\" update_version=\"2\"/>"
                                     "</update-status>"}, {"a.version", "2\n"}},
       "update_state=uptodate|untouched", {"\"a\" state=\"uptodate\""}, true},
      {{{"corvid_update_status.xml", "<update-status><file name=\"b\" state=\"download\" update_version=\"2\" "
                                     "download_size=\"5\" total_size=\"9\"/></update-status>"}},
       "update_state=error|update_msg=Process was not correctly terminated",
       {"result=\"error\" download_size=\"5\" total_size=\"9\""}, false},
  };
  const std::string path = update_dir_ + "/corvid_update_status.xml";
  for (const auto& row : rows) {
    TearDown();
    std::filesystem::remove_all(update_dir_);
    SetUp();
    std::string written;  // the status file as the start found it
    for (const auto& [name, text] : row.files) {
      std::filesystem::create_directories(update_dir_);
      fixtures::write_file(update_dir_ + "/" + name, text);
      if (name == "corvid_update_status.xml") written = text;
    }
    const uint64_t started = std::time(nullptr);
    start_module();
    const auto [state, message] = status_line(true);
    EXPECT_EQ(state + "|" + message, row.answer);
    std::string xml;
    get_status_xml(xml);
    for (const auto& part : row.xml) EXPECT_NE(xml.find(part), std::string::npos) << part << " in " << xml;
    const std::string saved = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + xml;
    EXPECT_EQ(read_file(path), row.saved ? saved : written) << row.answer;
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_TRUE(status.save_enabled && status.current_message == nullptr);
    EXPECT_EQ(status.client_visible, status.result == status_error) << row.answer;
    EXPECT_GE(status.revision >> 32, started);  // a client's revision of an earlier life is older
  }
}

using StateMachineTest = ModuleTest;

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
  EXPECT_EQ(log_.all("processing previous update request").size(), 2u);

  held_run_t::release();
  agent::drain_event_manager();
  // The first run and the third: the second was replaced without a trace.
  EXPECT_EQ(held_run_t::entered, 2);
  EXPECT_EQ(logged("processing command: check (first)") + logged("processing command: install (third)"), 2u);
  EXPECT_EQ(logged("processing command: download (second)"), 0u);
  EXPECT_EQ(current_module_state(), module_idle);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.cmd + " " + status.cmdid, "install third");
}

TEST_F(StateMachineTest, CommandBeforeStartupWaitsForFinishInit) {
  // Keep the worker busy so that finish_init stays queued behind it.
  EM_AsyncCall([](em_call_t*) { held_run_t::hold(); }, nullptr);
  init();
  submit(Command::check, {}, "early");
  EXPECT_EQ(logged("module UPDATE initializing"), 1u);
  EXPECT_EQ(current_module_state(), module_stopped);
  EXPECT_EQ(status_line(true), untouched);

  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(logged("processing command: check (early)"), 1u);
  EXPECT_EQ(current_module_state(), module_idle);
  EXPECT_EQ(status_line(false).second, "update_msg=" + no_uri);
}

TEST_F(StateMachineTest, FiniDropsQueuedAndPendingRunsAndStaysStopped) {
  // A run queued behind other work of the worker never begins after the stop.
  start_module();
  EM_AsyncCall([](em_call_t*) { held_run_t::hold(); }, nullptr);
  held_run_t::wait_entered();
  submit(Command::check, {"http://127.0.0.1:1/"}, "queued");
  fini();
  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(logged("processing command: check (queued)"), 0u);
  EXPECT_EQ(current_module_state(), module_stopped);

  held_run_t::entered = 0, held_run_t::released = false;
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
  // The run itself walked to its end; a submit after fini waits for good.
  EXPECT_EQ(logged("command: check, result: error"), 1u);
  submit(Command::check, {}, "late");
  agent::drain_event_manager();
  EXPECT_EQ(logged("processing command: check (late)"), 0u);
  EXPECT_EQ(status_line(true), untouched);
}

// A new init starts clean: a stop before the end of start-up keeps the module stopped until then, and a
// run of the stopped life that ends after the new init leaves it its state, its "$" values and the
// command that waited for it.
TEST_F(StateMachineTest, StopAndStartInQuickSuccessionLeaveTheNewLifeWorking) {
  const auto path_var_count = [] { std::lock_guard<std::mutex> hold(path_vars_lock); return path_vars.size(); };
  EM_AsyncCall([](em_call_t*) { held_run_t::hold(); }, nullptr);
  init();
  fini();
  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(current_module_state(), module_stopped);
  EXPECT_EQ(logged("init, result: "), 0u);  // nor restored what it will not use

  held_run_t::entered = 0, held_run_t::released = false;
  start_module();
  run_curl_init = [] { return held_run_t::hold(), curl_easy_init(); };
  submit(Command::check, {"http://127.0.0.1:1/"}, "old");
  held_run_t::wait_entered();
  fini();
  submit(Command::check, {}, "new");
  init();
  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(logged("Update stopped: the module is stopping"), 1u);  // the old run stays stopped
  EXPECT_EQ(current_module_state(), module_idle);
  EXPECT_GT(path_var_count(), 0u);
  EXPECT_EQ(logged("processing command: check (new)"), 1u);
  EXPECT_EQ(status_line(true).second, "update_msg=" + no_uri);
  // With no new init, the stopped run takes the "$" values with it when it ends.
  held_run_t::entered = 0, held_run_t::released = false;
  submit(Command::check, {"http://127.0.0.1:1/"}, "last");
  held_run_t::wait_entered();
  fini();
  EXPECT_GT(path_var_count(), 0u);
  held_run_t::release();
  agent::drain_event_manager();
  EXPECT_EQ(path_var_count(), 0u);
}

std::string revision_bytes(uint64_t revision, size_t extra = 0) {
  std::string out(reinterpret_cast<const char*>(&revision), sizeof revision);
  return out + std::string(extra, 'x');
}

class ListenerTest : public StatusTest {
 protected:
  void SetUp() override { StatusTest::SetUp(); status.revision = 42; }
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
      {true, revision_bytes(42), "true", ""}, {false, revision_bytes(41), "false", ""},
      {true, revision_bytes(41, 4), "true", revision_bytes(42) + uptodate}, {true, "1234567", "CommandStreamError", ""},
  };
  for (const auto& row : rows) {
    status.client_visible = row.visible;
    EXPECT_EQ(code6(row.request), std::make_pair(row.result, row.reply)) << row.request.size();
  }
}

TEST_F(ListenerTest, BinaryStatusCarriesSizesWhileDownloadingAndEveryMessageOnError) {
  status.result = status_download;
  status.checking_file = "f";
  file_status_t& file = status.file_entry("f");
  file.available = true, file.state = file_download, file.download_size = 3, file.total_size = 9;
  EXPECT_EQ(code6("").second, std::string("\x02\0\0\0" "\x03\0\0\0\0\0\0\0" "\x09\0\0\0\0\0\0\0" "\x01\0\0\0f", 25));
  status.result = status_error;
  status.messages = {{"", "ab", 0}, {"x", "", 0}, {"y", "c", 0}};
  EXPECT_EQ(code6("").second, std::string("\x04\0\0\0" "\x03\0\0\0" "\x02\0\0\0ab" "\0\0\0\0" "\x01\0\0\0c", 23));
}

}  // namespace
}  // namespace update::testing
