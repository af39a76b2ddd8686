#include <gtest/gtest.h>

#include "frame/update.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

class StatusQueryTest : public StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    set_module_state(module_idle);
  }
  static void set_module_state(module_state_t state) {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = state;
  }
  // "state|message" as get_status leaves them; "-" where it did not write.
  static std::string query(bool force) {
    std::string state = "-", message = "-";
    get_status(state, message, force);
    return state + "|" + message;
  }
};

// Only the groups of the mapping: each word once.
TEST_F(StatusQueryTest, MapsTheResultToTheDaemonsWords) {
  const std::pair<int, const char*> rows[] = {
      {2, "update_state=download|-"},
      {5, "update_state=outofdate|-"},
      {7, "update_state=install|-"},
      {4, "update_state=error|update_msg="},
      {9, "update_state=error|update_msg=update status undefined"},
  };
  for (const auto& [result, expected] : rows) {
    status.result = static_cast<status_code_t>(result);
    EXPECT_EQ(query(true), expected) << "result " << result;
  }
}

TEST_F(StatusQueryTest, ErrorTellsTheFirstNonEmptyMessageAndAFailureGoesFirst) {
  status.result = status_error;
  status.messages = {{"", "", 0}, {"s1", "Download error: one", 2}, {"s2", "Download error: two", 2}};
  EXPECT_EQ(query(true), "update_state=error|update_msg=Download error: one");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.set_failure("Process was not correctly terminated");
  EXPECT_EQ(query(true), "update_state=error|update_msg=Process was not correctly terminated");
  EXPECT_EQ(status.revision, 0u);  // a failure is not saved
}

TEST_F(StatusQueryTest, TellsEachMomentOnceUnlessForcedAndNothingWhenStopped) {
  status.result = status_uptodate;
  EXPECT_EQ(query(false), "update_state=uptodate|-");
  EXPECT_EQ(query(false), "-|-");
  EXPECT_EQ(query(true), "update_state=uptodate|-");
  // A run's start and end are news again.
  status.begin_run(Command::check, "");
  EXPECT_EQ(query(false), "update_state=download|-");
  status.end_run(Command::check);
  EXPECT_EQ(query(false), "update_state=uptodate|-");

  set_module_state(module_stopped);
  EXPECT_EQ(query(true), "-|-");
  std::string text = "s";  // the text answers in every state
  get_status_xml(text);
  EXPECT_EQ(text.rfind("s<update-status result=\"uptodate\"", 0), 0u);
}

}  // namespace
}  // namespace update::testing
