// Start-up: telling a finished run from a cut-off one, and what the module
// says when it finds no status file or an unusable description.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/frame_fixture.h"
#include "frame/startup.h"
#include "platform/agent_paths.h"

namespace update {
namespace {

class StartupTest : public testing::ModuleTest {};

TEST(Plausibility, TellsAFinishedRunFromACutOffOne) {
  struct row_t {
    const char* what;
    std::vector<std::pair<int, const char*>> files;  // state, error
    bool with_message, plausible;
  };
  const row_t rows[] = {
      {"nothing at all", {}, false, true},
      {"resting states without error", {{1, ""}, {4, ""}, {6, ""}}, false, true},
      {"downloaded with error", {{4, "e"}}, true, false},
      {"outofdate without error", {{2, ""}}, true, false},
      {"install cut off", {{5, ""}}, true, false},
      {"failed download with its message", {{1, ""}, {3, "e"}}, true, true},
      {"error but no message", {{2, "e"}}, false, false},
      {"state read as 0", {{0, ""}}, true, false},
      {"state beyond 6", {{7, ""}}, true, false},
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

TEST_F(StartupTest, RecoveryTellsACutOffRunAtTheFrontOrKeepsAPlausibleOne) {
  const struct {
    file_state_t state;
    const char* error;  // of the file and of its message
    size_t messages;
    status_code_t result;
  } rows[] = {{file_download, "", 2, status_error}, {file_install, "exec failed", 1, status_error},
              {file_undecided, nullptr, 0, status_uptodate}};
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  for (const auto& row : rows) {
    status.reset();
    if (row.error) {
      file_status_t& file = status.files.emplace_back();
      file.name = "a.bin", file.state = row.state, file.error = row.error;
      status.messages.push_back({"http://src/", row.error, 0});
    }
    status_reported = true;
    recover_loaded_status(status, update_dir_ + "/");
    ASSERT_EQ(status.messages.size(), row.messages);
    if (row.messages == 2) { EXPECT_EQ(status.messages.front().text, "Process was not correctly terminated"); }
    EXPECT_EQ(status.result, row.result);
    EXPECT_EQ(status.client_visible, row.result == status_error);
    if (row.error) { EXPECT_TRUE(status.files.front().available && status.files.front().state == row.state); }
    EXPECT_FALSE(status_reported);
  }
}

TEST_F(StartupTest, NothingOnDiskAnswersTheFixedTextAndAnUndefinedStatus) {
  init();
  std::string xml = "kept:";
  get_status_xml(xml);
  EXPECT_EQ(xml, "kept:<update-status result=\"undefined\"><message>no update status</message></update-status>");
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(status.result, status_undefined);
    ASSERT_EQ(status.messages.size(), 1u);
    EXPECT_EQ(status.messages.front().uri, "localhost");
    EXPECT_EQ(status.current_message, nullptr);
    EXPECT_TRUE(status.save_enabled);
  }
  agent::drain_event_manager();
  EXPECT_EQ(count_logged(log_id_course, {"done", "init, result: undefined"}), 1u);
  EXPECT_EQ(status_line(false), std::make_pair(std::string("update_state=error"),
                                                std::string("update_msg=update status undefined")));
  EXPECT_FALSE(std::filesystem::exists(update_dir_)) << "start-up must not create the directory";
}

TEST_F(StartupTest, UnusableDescriptionIsToldAndItsErrorsNeverReachTheFile) {
  // A bare rule with a file and no hash fails while verification is on.
  std::filesystem::create_directories(update_dir_);
  fixtures::write_file(update_dir_ + "/corvid_update.ini", "[corvid]\nversion=1.1\nfile=a.bin\nexec=true\n");
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
  EXPECT_EQ(status_line(true).second, "update_msg=No update status");
}

TEST_F(StartupTest, RestartFindsTheFileTellsACutOffRunAndSavesWhatTheDiskSays) {
  std::filesystem::create_directories(update_dir_);
  const std::string path = update_dir_ + "/corvid_update_status.xml";
  fixtures::write_file(path, "<update-status><file name=\"a\" state=\"download\" update_version=\"2\"/>"
                             "<file name=\"b\" state=\"installed\" update_version=\"1\"/></update-status>");
  fixtures::write_file(update_dir_ + "/b.version", "1\n");
  init();
  const std::string saved = fixtures::read_file(path);
  EXPECT_NE(saved.find(">Process was not correctly terminated<"), std::string::npos) << saved;
  EXPECT_NE(saved.find("\"a\" state=\"download\""), std::string::npos) << saved;
  EXPECT_NE(saved.find("\"b\" state=\"uptodate\""), std::string::npos) << saved;
}

TEST_F(StartupTest, SavedDescriptionSeedsTheStatusWhenThereIsNoStatusFile) {
  std::filesystem::create_directories(update_dir_);
  fixtures::write_file(update_dir_ + "/corvid_update.ini",  // the bare rule is the agent's
                       "[corvid]\nversion=" + productVersion() + "\nfile=a.bin\nhash=#SHA256:00\nexec=x\n");
  init();
  const std::string saved = fixtures::read_file(update_dir_ + "/corvid_update_status.xml");
  EXPECT_EQ(saved.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<update-status result=\"uptodate\"", 0), 0u)
      << "what seeding says, not the error start-up set while loading";
  EXPECT_NE(saved.find("<file name=\"a.bin\" state=\"uptodate\""), std::string::npos) << saved;
}

}  // namespace
}  // namespace update
