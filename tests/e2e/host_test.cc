// The built corvid-update, run as a user would run it.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <tuple>

#include <chrono>
#include <thread>

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
  fixtures::scratch_dir_t dir_;
};

TEST_F(HostTest, CheckWithoutSourceFailsWithTheMessageAndSavesIt) {
  const std::string update_dir = dir_.path("upd");
  const outcome_t o = run({"--update-dir", update_dir, "check"});
  EXPECT_EQ(o.exit_code, 1) << o.err;
  EXPECT_EQ(o.out,
            "update_state=error\n"
            "update_msg=Download error: URI not specified (should be obtained from the Policy Managment Server)\n");
  // The start time is the one varying part: its shape is all that is checked.
  const std::string saved = read_file(update_dir + "/corvid_update_status.xml");
  const std::string fixed = std::regex_replace(
      saved, std::regex(R"(start_time="\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d")"), "start_time=\"TIME\"");
  EXPECT_EQ(fixed,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<update-status result=\"error\" download_size=\"0\" total_size=\"0\" cmd=\"check\" cmdid=\"\" "
            "start_time=\"TIME\">\n"
            "<message uri=\"\" state=\"prepare\">Download error: URI not specified (should be obtained from the "
            "Policy Managment Server)</message>\n"
            "</update-status>\n");
  // Without --root the agent lives under the per-user state directory.
  const std::string log = read_file(dir_.path("state/corvid/log/corvid_update.log"));
  EXPECT_NE(log.find("\t367\tdone\tcommand: check, result: error\n"), std::string::npos) << log;
  // Not a terminal: progress comes as the log's lines.
  EXPECT_NE(o.err.find("error: Download error: URI not specified"), std::string::npos) << o.err;
}

TEST_F(HostTest, CommandLineDecidesWhatReachesTheModule) {
  const std::tuple<std::vector<std::string>, int, std::string> rows[] = {
      {{"--update-dir", dir_.path("u1"), "--cmdid", "7", "unknown", "http://127.0.0.1:1/"}, 1,
       "update_state=error\nupdate_msg=Unknown update command\n"},
      {{"--help"}, 0, "Usage: corvid-update"},
      {{}, 2, ""},
      {{"bogus"}, 2, ""},
      {{"--xml", "check"}, 2, ""},
      {{"--update-dir"}, 2, ""},
      {{"--frobnicate", "check"}, 2, ""},
      {{"status", "http://x/"}, 2, ""},
  };
  for (const auto& [args, exit_code, out_begins] : rows) {
    const outcome_t o = run(args);
    const std::string what = args.empty() ? "(nothing)" : args.back();
    EXPECT_EQ(o.exit_code, exit_code) << what << ": " << o.err;
    EXPECT_EQ(o.out.substr(0, out_begins.size()), out_begins) << what;
  }
  EXPECT_NE(read_file(dir_.path("u1/corvid_update_status.xml")).find("cmd=\"unknown\" cmdid=\"7\""), std::string::npos);
}

TEST_F(HostTest, CheckFetchesTheServedDescriptionIntoTheRootLayout) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  const std::string description = read_file(CORVID_SOURCE_DIR "/examples/repo/update.ini");
  ASSERT_FALSE(description.empty());
  ASSERT_TRUE(server.put_file("repo/update.ini", description));
  const std::string root = dir_.path("agent");
  const outcome_t o = run({"--root", root, "check", server.url("/repo/")});
  EXPECT_EQ(o.exit_code, 0) << o.out << o.err;
  EXPECT_EQ(o.out.rfind("update_state=", 0), 0u) << o.out;
  EXPECT_EQ(o.out.find("update_state=error"), std::string::npos) << o.out;
  EXPECT_EQ(read_file(root + "/var/update/corvid_update.ini"), description);
  EXPECT_TRUE(std::filesystem::exists(root + "/var/update/corvid_update_status.xml"));
  EXPECT_TRUE(std::filesystem::exists(root + "/log/corvid_update.log"));
  const auto served = server.requests(1);
  ASSERT_FALSE(served.empty());
  EXPECT_EQ(served.front().target, "/repo/update.ini");

  const outcome_t xml = run({"--root", root, "status", "--xml"});
  EXPECT_EQ(xml.exit_code, 0);
  EXPECT_EQ(xml.out.rfind("<update-status result=", 0), 0u) << xml.out;
}

// One file-section description, two agents that differ in version: the
// sections that their conditions choose decide which tool each downloads.
TEST_F(HostTest, DownloadFollowsTheFileSectionsThatTheAgentsVersionChooses) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  std::filesystem::copy(CORVID_SOURCE_DIR "/examples/sections", server.root() + "/sections",
                        std::filesystem::copy_options::recursive);
  const std::tuple<std::string, std::string, bool> rows[] = {
      {"1.0", "corvid-tool 1.4 (for agents 1.x)", false},
      {"2.0", "corvid-tool 2.1 (for agents 2.0 and later)", true},
  };
  for (const auto& [version, tool, plugin] : rows) {
    const std::string root = dir_.path("agent-" + version);
    for (const char* command : {"check", "download"}) {
      const outcome_t o = run({"--root", root, "--product-version", version, command, server.url("/sections/")});
      EXPECT_EQ(o.exit_code, 0) << command << " " << o.out << o.err;
    }
    EXPECT_NE(read_file(root + "/var/update/corvid-tool.sh").find(tool), std::string::npos) << version;
    EXPECT_EQ(std::filesystem::exists(root + "/var/update/corvid-plugin.sh"), plugin) << version;
  }
}

TEST_F(HostTest, InstallsTheExampleThenServesTheClient) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  for (const char* repo : {"repo", "agent"})
    std::filesystem::copy(std::string(CORVID_SOURCE_DIR "/examples/") + repo, server.root() + "/" + repo,
                          std::filesystem::copy_options::recursive);
  const std::string root = dir_.path("agent"), source = server.url("/repo/"), agent = server.url("/agent/");
  // The agent's own main rule is met by the agent's version; the tools are not.
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=outofdate\n");
  const outcome_t installed = run({"--root", root, "--answer", "yes", "install", agent, source});
  EXPECT_EQ(installed.exit_code, 0) << installed.err;
  EXPECT_EQ(installed.out, "update_state=uptodate\n") << installed.err;
  EXPECT_NE(installed.err.find("update: asked to install 2.0 (files/readme.txt,files/licence.txt): yes"), std::string::npos) << installed.err;
  EXPECT_NE(installed.err.find("install: Executing user ok exit status 0"), std::string::npos) << installed.err;
  EXPECT_EQ(read_file(root + "/var/update/readme.txt.version"), "2.0\n");
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=uptodate\n");

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
