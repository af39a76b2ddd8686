// The process runner against real programs: what a start failure, an exit
// status and a signal become, how a command line is split, and what a child
// inherits.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "install/run_exec.h"
#include "status/status.h"

namespace update {
namespace {

class RunExecTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_module_for_tests();
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.save_enabled = false;
    status.messages.emplace_back();
    status.current_message = &status.messages.back();
  }
  void TearDown() override { reset_module_for_tests(); }

  std::string first_error() {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.messages.front().text;
  }

  fixtures::scratch_dir_t dir_;
  fixtures::log_records_t log_;
};

TEST_F(RunExecTest, FailuresAreErrorsUnlessQuietAndNameTheirCause) {
  const struct {
    std::string command;
    int32_t quiet;
    std::string text;
  } rows[] = {
      {"corvid-no-such-program --x", 0, "exec() fail: corvid-no-such-program --x, error: [0x2] No such file or directory"},
      {"", 0, "exec() fail: , error: [0x16] Invalid argument"},
      {"sh -c 'unterminated", 0, "exec() fail: sh -c 'unterminated, error: [0x16] Invalid argument"},
      {"sh -c 'exit 4'", 1, "exec() exit: sh -c 'exit 4', status: 4"},
      {"sh -c 'exit 3'", 0, "exec() exit: sh -c 'exit 3', status: 3"},
      {"sh -c 'kill -KILL $$'", 0, "exec() exit: sh -c 'kill -KILL $$', signal: 9 (SIGKILL)"},
  };
  for (const auto& row : rows) {
    SetUp();
    EXPECT_FALSE(run_exec(row.command, row.quiet)) << row.command;
    EXPECT_EQ(first_error(), row.quiet ? "" : row.text);
    EXPECT_EQ(log_.all(row.text).size(), 1u) << row.text;
  }
  EXPECT_TRUE(run_exec("true", 0));
  EXPECT_EQ(log_.all("exec() done: true").size(), 1u);
}

TEST_F(RunExecTest, SplitsLikeAShellAndHandsTheChildNothingOfOurs) {
  // A descriptor of ours without close-on-exec must still stay ours.
  const int leaky = ::open(dir_.path().c_str(), O_RDONLY);
  ASSERT_GE(leaky, 3);
  const std::string out = dir_.path("out");
  const std::string fd = "/proc/$$/fd/" + std::to_string(leaky);
  EXPECT_TRUE(run_exec("sh -c 'printf \"%s|\" \"$@\" >" + out + "; readlink /proc/$$/fd/0 /proc/$$/fd/2 >>" + out + "; test -e " + fd +
                           " && echo leaked >>" + out + "; read x || echo no-input >>" + out +
                           "' 0 \"a b\" 'c \"d\"' e\\ f \"g\\\"h\" '$(x)'",
                       0))
      << first_error();
  ::close(leaky);
  EXPECT_EQ(fixtures::read_file(out), "a b|c \"d\"|e f|g\"h|$(x)|/dev/null\n/dev/null\nno-input\n");
}

TEST_F(RunExecTest, WithoutWaitSucceedsWhateverTheChildDoesLater) {
  const std::string mark = dir_.path("later");
  EXPECT_TRUE(run_exec("sh -c 'sleep 0.2; touch " + mark + "; exit 1'", false, 0));
  EXPECT_EQ(first_error(), "");
  for (int i = 0; i < 100 && access(mark.c_str(), F_OK) != 0; ++i) usleep(20000);
  EXPECT_EQ(access(mark.c_str(), F_OK), 0);
}

}  // namespace
}  // namespace update
