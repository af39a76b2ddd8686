// Start-up: telling a finished run from a cut-off one, and what the module
// says when it finds no status file.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "frame/frame_fixture.h"
#include "frame/path_vars.h"
#include "frame/startup.h"

namespace update {
namespace {

class StartupTest : public testing::ModuleTest {
 protected:
  void write_local_ini(const std::string& text) {
    std::filesystem::create_directories(update_dir_);
    std::ofstream(update_dir_ + "/corvid_update.ini", std::ios::binary) << text;
  }
  static file_status_t file(const char* name, file_state_t state, const char* error) {
    file_status_t f;
    f.name = name, f.state = state, f.error = error;
    return f;
  }
};

TEST(Plausibility, TellsAFinishedRunFromACutOffOne) {
  struct row_t {
    const char* what;
    std::vector<std::pair<int, const char*>> files;  // state, error
    bool with_message;
    bool plausible;
  };
  const row_t rows[] = {
      {"nothing at all", {}, false, true},
      {"resting states without error", {{1, ""}, {4, ""}, {6, ""}}, false, true},
      {"uptodate with error", {{1, "e"}}, true, false},
      {"downloaded with error", {{4, "e"}}, true, false},
      {"installed with error", {{6, "e"}}, true, false},
      {"outofdate without error", {{2, ""}}, true, false},
      {"download cut off", {{3, ""}}, true, false},
      {"install cut off", {{5, ""}}, true, false},
      {"failed install with its message", {{5, "e"}}, true, true},
      {"failed download with its message", {{1, ""}, {3, "e"}}, true, true},
      {"error but no message", {{2, "e"}}, false, false},
      {"state read as 0", {{0, ""}}, true, false},
      {"state beyond 6", {{7, ""}}, true, false},
      {"walk stops at the first bad entry", {{3, ""}, {2, "e"}}, true, false},
  };
  for (const auto& row : rows) {
    status_t s;
    for (const auto& [state, error] : row.files) {
      file_status_t& f = s.files.emplace_back();
      f.state = static_cast<file_state_t>(state);
      f.error = error;
    }
    if (row.with_message) s.messages.push_back({"u", "", 0});
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    EXPECT_EQ(status_is_plausible(s), row.plausible) << row.what;
  }
}

TEST_F(StartupTest, CutOffRunIsToldAtTheFrontAndTheFileKeepsItsState) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.files.push_back(file("a.bin", file_download, ""));
  status.messages.push_back({"http://src/", "", 0});
  status_reported = true;
  recover_loaded_status(status, update_dir_ + "/");
  ASSERT_EQ(status.messages.size(), 2u);
  EXPECT_EQ(status.messages.front().text, "Process was not correctly terminated");
  EXPECT_EQ(status.messages.front().state, 0);
  EXPECT_EQ(status.result, status_error);
  EXPECT_TRUE(status.client_visible);
  EXPECT_TRUE(status.files.front().available);
  EXPECT_EQ(status.files.front().state, file_download);
  EXPECT_FALSE(status_reported);
}

TEST_F(StartupTest, PlausibleStatusKeepsItsMessagesAndDerivesTheResult) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.files.push_back(file("a.bin", file_install, "exec failed"));
  status.messages.push_back({"http://src/", "exec failed", 3});
  recover_loaded_status(status, update_dir_ + "/");
  ASSERT_EQ(status.messages.size(), 1u);
  EXPECT_EQ(status.result, status_error);
  EXPECT_TRUE(status.client_visible);

  status.reset();
  recover_loaded_status(status, update_dir_ + "/");
  EXPECT_EQ(status.result, status_uptodate);
  EXPECT_FALSE(status.client_visible);
  EXPECT_TRUE(status.messages.empty());
}

TEST_F(StartupTest, NothingOnDiskAnswersTheFixedTextAndAnUndefinedStatus) {
  const auto before = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch()).count();
  init();
  const auto after = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch()).count();
  std::string xml = "kept:";
  get_status_xml(xml);
  EXPECT_EQ(xml, "kept:<update-status result=\"undefined\"><message>no update status</message></update-status>");
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(status.result, status_undefined);
    EXPECT_GE(status.revision >> 32, static_cast<uint64_t>(before));
    EXPECT_LE(status.revision >> 32, static_cast<uint64_t>(after));
    EXPECT_EQ(status.revision & 0xffffffffu, 0u);
    ASSERT_EQ(status.messages.size(), 1u);
    EXPECT_EQ(status.messages.front().uri, "localhost");
    EXPECT_EQ(status.current_message, nullptr);
    EXPECT_TRUE(status.save_enabled);
  }
  agent::drain_event_manager();
  EXPECT_EQ(count_logged(log_id_course, {"start", "init"}), 1u);
  EXPECT_EQ(count_logged(log_id_course, {"done", "init, result: undefined"}), 1u);
  std::string state, message;
  get_status(state, message, false);
  EXPECT_EQ(state, "update_state=error");
  EXPECT_EQ(message, "update_msg=update status undefined");
  EXPECT_FALSE(std::filesystem::exists(update_dir_)) << "start-up must not create the directory";
}

TEST_F(StartupTest, UnusableDescriptionIsToldAndItsErrorsNeverReachTheFile) {
  // A bare rule with a file and no hash fails while verification is on.
  write_local_ini("[corvid]\nversion=1.1\nfile=a.bin\nexec=true\n");
  init();
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(status.result, status_error);
    EXPECT_TRUE(status.client_visible);
    ASSERT_EQ(status.messages.size(), 2u);
    EXPECT_EQ(status.messages.front().text, "No update status");
    EXPECT_EQ(status.messages.back().uri, "localhost");
    EXPECT_NE(status.messages.back().text.find("missing required field 'hash'"), std::string::npos)
        << status.messages.back().text;
    EXPECT_TRUE(status.save_enabled);
  }
  EXPECT_FALSE(std::filesystem::exists(update_dir_ + "/corvid_update_status.xml"));
  agent::drain_event_manager();
  std::string state, message;
  get_status(state, message, true);
  EXPECT_EQ(message, "update_msg=No update status");
}

TEST_F(StartupTest, PathVariablesKeepTheirOrderAndLoseOneTrailingSeparator) {
  init();
  std::vector<std::string> names;
  for (const auto& var : path_vars) names.push_back(var.name);
  const std::vector<std::string> expected = {
      "$update_path", "$download_path", "$current_version", "$update_uri", "$agent_tmp",
      "$agent_bin",   "$agent_lib",     "$agent_etc",       "$system_etc", "$system_log",
      "$system_var",  "$system_var_etc", "$system_tmp",     "$agent_version", "$current_product_specs"};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(std::next(path_vars.begin(), 10)->value, root_ + "/var");  // "$system_var"
  fini();
  EXPECT_TRUE(path_vars.empty());
}

}  // namespace
}  // namespace update
