#include <gtest/gtest.h>

#include "frame/update.h"
#include "status/status.h"
#include "status/status_fixture.h"

namespace update {
namespace {

class StatusQueryTest : public testing::StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    set_module_state(module_idle);
  }
  static void set_module_state(module_state_t state) {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = state;
  }
};

TEST_F(StatusQueryTest, MapsTheResultToTheDaemonsWords) {
  struct row_t {
    int result;
    const char* state;
    const char* message;  // null: left as passed
  };
  const row_t rows[] = {
      {1, "update_state=download", nullptr},     {2, "update_state=download", nullptr},
      {3, "update_state=download", nullptr},     {6, "update_state=download", nullptr},
      {5, "update_state=outofdate", nullptr},    {7, "update_state=install", nullptr},
      {8, "update_state=uptodate", nullptr},     {4, "update_state=error", "update_msg="},
      {0, "update_state=error", "update_msg=update status undefined"},
      {9, "update_state=error", "update_msg=update status undefined"},
  };
  for (const auto& row : rows) {
    status.result = static_cast<status_code_t>(row.result);
    std::string state = "before", message = "before";
    get_status(state, message, true);
    EXPECT_EQ(state, row.state) << "result " << row.result;
    EXPECT_EQ(message, row.message ? row.message : "before") << "result " << row.result;
  }
}

TEST_F(StatusQueryTest, ErrorTellsTheFirstNonEmptyMessage) {
  status.result = status_error;
  status.messages.push_back({"", "", 0});
  status.messages.push_back({"s1", "Download error: one", 2});
  status.messages.push_back({"s2", "Download error: two", 2});
  std::string state, message;
  get_status(state, message, true);
  EXPECT_EQ(message, "update_msg=Download error: one");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.set_failure("Process was not correctly terminated");
  get_status(state, message, true);
  EXPECT_EQ(message, "update_msg=Process was not correctly terminated");
}

TEST_F(StatusQueryTest, TellsEachMomentOnceUnlessForced) {
  status.result = status_uptodate;
  std::string state, message;
  get_status(state, message, false);
  EXPECT_EQ(state, "update_state=uptodate");
  state = "untouched";
  get_status(state, message, false);
  EXPECT_EQ(state, "untouched");
  get_status(state, message, true);
  EXPECT_EQ(state, "update_state=uptodate");
  // A run's start and end are news again.
  status.begin_run(Command::check, "");
  get_status(state, message, false);
  EXPECT_EQ(state, "update_state=download");
  status.end_run(Command::check);
  get_status(state, message, false);
  EXPECT_EQ(state, "update_state=uptodate");
}

TEST_F(StatusQueryTest, StoppedModuleLeavesStringsAlone) {
  set_module_state(module_stopped);
  status.result = status_uptodate;
  std::string state = "s", message = "m";
  get_status(state, message, true);
  EXPECT_EQ(state, "s");
  EXPECT_EQ(message, "m");
  EXPECT_FALSE(status_reported);
  // The text answers in every state.
  get_status_xml(state);
  EXPECT_EQ(state.rfind("s<update-status result=\"uptodate\"", 0), 0u);
}

}  // namespace
}  // namespace update
