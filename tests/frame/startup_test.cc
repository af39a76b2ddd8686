// Start-up: telling a finished run from a cut-off one, and what the module
// says when it finds no status file or an unusable description.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/frame_fixture.h"
#include "frame/startup.h"
#include "platform/agent_paths.h"

namespace update::testing {
namespace {

using StartupTest = ModuleTest;

TEST(Plausibility, TellsAFinishedRunFromACutOffOne) {
  const struct {
    const char* what;
    std::vector<std::pair<int, const char*>> files;  // state, error
    bool with_message, plausible;
  } rows[] = {
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
      f.state = static_cast<file_state_t>(state), f.error = error;
    }
    if (row.with_message) s.messages.push_back({"u", "", 0});
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    EXPECT_EQ(status_is_plausible(s), row.plausible) << row.what;
  }
}

// Nothing on disk; a description it cannot use, whose errors must not reach
// a file; the file of a cut-off run, saved with what the disk says; only a
// description to seed the status from. Start-up never makes the directory.
TEST_F(StartupTest, AnswersWhatItFindsOnDisk) {
  const std::string cut_off = "<update-status><file name=\"a\" state=\"download\" update_version=\"2\"/>"
                              "<file name=\"b\" state=\"installed\" update_version=\"1\"/></update-status>";
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
      {{{"corvid_update_status.xml", cut_off}, {"b.version", "1\n"}},
       "update_state=error|update_msg=Process was not correctly terminated",
       {"\"a\" state=\"download\"", "\"b\" state=\"uptodate\""}, true},
      {{{"corvid_update.ini", seed}}, "update_state=uptodate|untouched",
       {"<update-status result=\"uptodate\"", "\"a.bin\" state=\"uptodate\""}, true},
  };
  const std::string path = update_dir_ + "/corvid_update_status.xml";
  for (const auto& row : rows) {
    TearDown();
    std::filesystem::remove_all(update_dir_);
    SetUp();
    for (const auto& [name, text] : row.files) {
      std::filesystem::create_directories(update_dir_);
      fixtures::write_file(update_dir_ + "/" + name, text);
    }
    start_module();
    const auto [state, message] = status_line(true);
    EXPECT_EQ(state + "|" + message, row.answer);
    std::string xml;
    get_status_xml(xml);
    for (const auto& part : row.xml) EXPECT_NE(xml.find(part), std::string::npos) << part << " in " << xml;
    EXPECT_EQ(read_file(path), row.saved ? "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n" + xml : "") << row.answer;
    EXPECT_EQ(std::filesystem::exists(update_dir_), !row.files.empty());
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_TRUE(status.save_enabled && status.current_message == nullptr);
  }
}

}  // namespace
}  // namespace update::testing
