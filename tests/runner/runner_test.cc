// The process runner against real programs.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "facts/stop_flag.h"
#include "platform/process.h"
#include "runner/run_exec.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

class RunExecTest : public StatusTest {
 protected:
  void SetUp() override { StatusTest::SetUp(); quiet(); }
};

TEST_F(RunExecTest, FailuresAreErrorsUnlessQuietAndNameTheirCause) {
  const struct { std::string command; int32_t quiet; std::string text; } rows[] = {
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
    EXPECT_EQ(reported(), row.quiet ? "" : row.text);
    EXPECT_EQ(logged(row.text), 1u) << row.text;
  }
  EXPECT_TRUE(run_exec("true", 0) && logged("exec() done: true") == 1u);
  // Without a thread to spare, a command not waited for is waited for here.
  platform::refuse_thread_start() = true;
  EXPECT_TRUE(run_exec("sleep 0.1", false, 0) && logged("exec() no wait: sleep 0.1") == 1u);
  platform::refuse_thread_start() = false;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);  // no child left, not even a zombie
  // After a stop nothing starts, and what did not start did not succeed.
  request_stop();
  EXPECT_FALSE(run_exec("touch " + dir_.path("ran"), 0));
  EXPECT_FALSE(run_exec_list({"true"}, 1));
  clear_stop_request();
  EXPECT_EQ(logged("The module is stopping, not started: touch "), 1u);
  EXPECT_NE(access(dir_.path("ran").c_str(), F_OK), 0);
}

TEST_F(RunExecTest, SplitsLikeAShellAndHandsTheChildNothingOfOurs) {
  // A descriptor of ours without close-on-exec must still stay ours.
  const int leaky = ::open(dir_.path().c_str(), O_RDONLY);
  ASSERT_GE(leaky, 3);
  const std::string out = dir_.path("out");
  const std::string fd = "/proc/$$/fd/" + std::to_string(leaky);
  EXPECT_TRUE(run_exec("sh -c 'printf \"%s|\" \"$@\" >" + out + "; readlink /proc/$$/fd/0 /proc/$$/fd/2 >>" + out + "; test -e " + fd +
                           " && echo leaked >>" + out + "; read x || echo no-input >>" + out +
                           "' 0 \"a b\" 'c \"d\"' e\\ f \"g\\\"h\" '$(x)'", 0)) << reported();
  ::close(leaky);
  EXPECT_EQ(fixtures::read_file(out), "a b|c \"d\"|e f|g\"h|$(x)|/dev/null\n/dev/null\nno-input\n");
}

}  // namespace
}  // namespace update::testing
