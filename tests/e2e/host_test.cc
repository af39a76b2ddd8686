// The built corvid-update, run as a user would run it.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <tuple>

#include "fixtures/nginx_server.h"
#include "fixtures/scratch_dir.h"

namespace {

using fixtures::read_file;

struct outcome_t {
  int exit_code = -1;
  std::string out, err;
};

class HostTest : public ::testing::Test {
 protected:
  // Runs the host with its per-user state kept inside the test's directory.
  outcome_t run(const std::vector<std::string>& args, const std::string& program = "corvid-update") {
    std::string command = "XDG_STATE_HOME='" + dir_.path("state") + "' '" +
                          (program[0] == '/' ? program : CORVID_BIN_DIR "/" + program) + "'";
    for (const auto& a : args) command += " '" + a + "'";
    command += " >'" + dir_.path("stdout") + "' 2>'" + dir_.path("stderr") + "'";
    const int wstatus = std::system(command.c_str());
    return {WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1, read_file(dir_.path("stdout")), read_file(dir_.path("stderr"))};
  }
  void serve(const std::vector<const char*>& example_dirs) {
    std::string error;
    ASSERT_TRUE(server_.start(error)) << error;
    for (const char* dir : example_dirs)
      std::filesystem::copy(std::string(CORVID_SOURCE_DIR "/examples/") + dir, server_.root() + "/" + dir,
                            std::filesystem::copy_options::recursive);
  }
  fixtures::scratch_dir_t dir_;
  fixtures::nginx_server_t server_;
};

// Without --root the agent lives under the per-user state directory; a
// wrong command line is refused before anything starts.
TEST_F(HostTest, CommandLineDecidesWhatReachesTheModule) {
  const outcome_t o = run({"--cmdid", "7", "unknown", "http://127.0.0.1:1/"});
  EXPECT_EQ(o.out, "update_state=error\nupdate_msg=Unknown update command\n");
  EXPECT_NE(read_file(dir_.path("state/corvid/var/update/corvid_update_status.xml")).find("cmd=\"unknown\" cmdid=\"7\""),
            std::string::npos);
  EXPECT_EQ(run({"--xml", "check"}).exit_code, 2);
}

TEST_F(HostTest, InstallsTheExampleThenServesTheClient) {
  serve({"repo", "agent"});
  const std::string root = dir_.path("agent"), source = server_.url("/repo/"), agent = server_.url("/agent/");
  // The agent's own main rule is met by the agent's version; the tools are not.
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=outofdate\n");
  EXPECT_EQ(read_file(root + "/var/update/corvid_update.ini"), read_file(CORVID_SOURCE_DIR "/examples/repo/update.ini"));
  const outcome_t installed = run({"--root", root, "--answer", "yes", "install", agent, source});
  EXPECT_EQ(installed.exit_code, 0) << installed.err;
  EXPECT_EQ(installed.out, "update_state=uptodate\n") << installed.err;
  EXPECT_NE(installed.err.find("update: asked to install 2.0 (files/readme.txt,files/licence.txt): yes"), std::string::npos) << installed.err;
  EXPECT_NE(installed.err.find("install: Executing user ok exit status 0"), std::string::npos) << installed.err;
  EXPECT_EQ(read_file(root + "/var/update/readme.txt.version"), "2.0\n");
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=uptodate\n");
  EXPECT_EQ(run({"--root", root, "status", "--xml"}).out.rfind("<update-status result=\"uptodate\"", 0), 0u);

  const std::string socket = dir_.path("bridge.sock");
  const pid_t daemon = fixtures::spawn_child(
      {CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket, "--socket-group", "daemon", "serve"}, -1,
      dir_.path("serve.log"));
  for (int i = 0; i < 250 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const outcome_t once = run({"--socket", socket, "status", "--once"}, "corvid-update-client");
  EXPECT_EQ(once.out.rfind("status: ", 0), 0u) << once.err;
  EXPECT_EQ(run({"--socket", socket, "xml"}, "corvid-update-client").out.rfind("<update-status result=", 0), 0u);
  // The client's install names no source, so it always ends in error.
  const outcome_t manual = run({"--socket", socket, "install"}, "corvid-update-client");
  EXPECT_EQ(manual.exit_code, 1);
  EXPECT_NE(manual.out.find("message: Download error: URI not specified"), std::string::npos) << manual.out << manual.err;
  // Code 8 bytes are a command line for the serving host.
  std::string hex;
  for (unsigned char c : "check " + source) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
  EXPECT_EQ(run({"--socket", socket, "send", hex}, "corvid-update-client").out, "accepted\n");
  outcome_t after;
  for (int i = 0; i < 100 && after.out != "status: uptodate\n"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    after = run({"--socket", socket, "status", "--once"}, "corvid-update-client");
  }
  EXPECT_EQ(after.exit_code, 0) << after.out;
  if (::getuid() == 0) {  // as other users: one outside the socket's group is told to join it, a member gets in
    std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
    for (const auto& [groups, says] : {std::pair{"--clear-groups", "must be a member of the group \"daemon\" that owns"},
                                       std::pair{"--groups=daemon", "status: uptodate"}}) {
      const outcome_t o = run({"--reuid=nobody", "--regid=nogroup", groups, CORVID_BIN_DIR "/corvid-update-client",
                               "--socket", socket, "status", "--once"}, "/usr/bin/setpriv");
      EXPECT_NE((o.out + o.err).find(says), std::string::npos) << groups << ": " << o.out << o.err;
    }
  }
  fixtures::stop_child(daemon, 5000);
  EXPECT_FALSE(std::filesystem::exists(socket));
  EXPECT_NE(read_file(root + "/log/corvid_update.log").find("\tserve\tstopped\n"), std::string::npos);
  EXPECT_EQ(read_file(dir_.path("serve.log")), "");  // a daemon writes to its log only
}

// The package's programs, unpacked away from the build tree, find their libraries in its own layout.
using PackageTest = HostTest;

TEST_F(PackageTest, UnpackedHostChecksAgainstNginx) {
  const std::string root = dir_.path("root"), host = root + "/usr/sbin/corvid-update";
  ASSERT_EQ(std::system(("dpkg-deb -x '" CORVID_PACKAGE_FILE "' '" + root + "'").c_str()), 0);
  EXPECT_NE(run({"--help"}, host).out.find("--socket-group NAME"), std::string::npos);
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  ASSERT_TRUE(server.put_file("repo/update.ini", read_file(CORVID_SOURCE_DIR "/examples/repo/update.ini")));
  EXPECT_EQ(run({"--root", dir_.path("agent"), "check", server.url("/repo/")}, host).out, "update_state=outofdate\n");
}

}  // namespace
