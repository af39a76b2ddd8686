// The built corvid-update, run as a user would run it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "fixtures/nginx_server.h"

namespace {

struct outcome_t {
  int exit_code = -1;
  std::string out;
  std::string err;
};

std::string read_all(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// "%Y-%m-%dT%H:%M:%S"
bool is_time_text(const std::string& text) {
  const std::string shape = "0000-00-00T00:00:00";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (shape[i] == '0' ? !digit : text[i] != shape[i]) return false;
  }
  return true;
}

class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fixtures::make_temp_dir("host");
    ASSERT_FALSE(dir_.empty());
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  // Runs the host with its per-user state kept inside the test's directory.
  outcome_t run(const std::vector<std::string>& args) {
    const std::string out_path = dir_ + "/stdout", err_path = dir_ + "/stderr";
    std::vector<std::string> argv = {std::string(CORVID_BIN_DIR) + "/corvid-update"};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::string state_home = dir_ + "/state";
    pid_t pid = fork();
    if (pid == 0) {
      setenv("XDG_STATE_HOME", state_home.c_str(), 1);
      int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(out, 1);
      dup2(err, 2);
      std::vector<char*> raw;
      for (auto& a : argv) raw.push_back(a.data());
      raw.push_back(nullptr);
      execv(raw[0], raw.data());
      _exit(127);
    }
    outcome_t o;
    int wstatus = 0;
    if (pid > 0 && waitpid(pid, &wstatus, 0) == pid && WIFEXITED(wstatus)) o.exit_code = WEXITSTATUS(wstatus);
    o.out = read_all(out_path);
    o.err = read_all(err_path);
    return o;
  }

  std::string dir_;
};

TEST_F(HostTest, CheckWithoutSourceFailsWithTheMessageAndSavesIt) {
  const std::string update_dir = dir_ + "/upd";
  const outcome_t o = run({"--update-dir", update_dir, "check"});
  EXPECT_EQ(o.exit_code, 1) << o.err;
  EXPECT_EQ(o.out,
            "update_state=error\n"
            "update_msg=Download error: URI not specified (should be obtained from the Policy Managment Server)\n");
  std::string saved = read_all(update_dir + "/corvid_update_status.xml");
  // The start time is the one varying part: check its shape, then fix it.
  const size_t time_at = saved.find("start_time=\"");
  ASSERT_NE(time_at, std::string::npos) << saved;
  const std::string when = saved.substr(time_at + 12, 19);
  EXPECT_TRUE(is_time_text(when)) << when;
  saved.replace(time_at + 12, 19, "TIME");
  EXPECT_EQ(saved,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<update-status result=\"error\" download_size=\"0\" total_size=\"0\" cmd=\"check\" cmdid=\"\" "
            "start_time=\"TIME\">\n"
            "<message uri=\"\" state=\"prepare\">Download error: URI not specified (should be obtained from the "
            "Policy Managment Server)</message>\n"
            "</update-status>\n");
  // Without --root the agent lives under the per-user state directory.
  const std::string log = read_all(dir_ + "/state/corvid/log/corvid_update.log");
  EXPECT_NE(log.find("\t367\tdone\tcommand: check, result: error\n"), std::string::npos) << log;
  // Not a terminal: progress comes as the log's lines.
  EXPECT_NE(o.err.find("error: Download error: URI not specified"), std::string::npos) << o.err;
}

TEST_F(HostTest, CommandLineDecidesWhatReachesTheModule) {
  struct row_t {
    std::vector<std::string> args;
    int exit_code;
    const char* out_begins;
  };
  const row_t rows[] = {
      {{"--update-dir", dir_ + "/u1", "--cmdid", "7", "unknown", "http://127.0.0.1:1/"}, 1,
       "update_state=error\nupdate_msg=Unknown update command\n"},
      {{"--help"}, 0, "Usage: corvid-update"},
      {{}, 2, ""},
      {{"bogus"}, 2, ""},
      {{"--xml", "check"}, 2, ""},
      {{"--update-dir"}, 2, ""},
      {{"--frobnicate", "check"}, 2, ""},
      {{"status", "http://x/"}, 2, ""},
  };
  for (const auto& row : rows) {
    const outcome_t o = run(row.args);
    const std::string what = row.args.empty() ? "(nothing)" : row.args.back();
    EXPECT_EQ(o.exit_code, row.exit_code) << what << ": " << o.err;
    EXPECT_EQ(o.out.substr(0, std::strlen(row.out_begins)), row.out_begins) << what;
  }
  EXPECT_NE(read_all(dir_ + "/u1/corvid_update_status.xml").find("cmd=\"unknown\" cmdid=\"7\""), std::string::npos);
}

TEST_F(HostTest, CheckFetchesTheServedDescriptionIntoTheRootLayout) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  const std::string description = read_all(std::string(CORVID_SOURCE_DIR) + "/examples/repo/update.ini");
  ASSERT_FALSE(description.empty());
  ASSERT_TRUE(server.put_file("repo/update.ini", description));
  const std::string root = dir_ + "/agent";
  const outcome_t o = run({"--root", root, "check", server.url("/repo/")});
  EXPECT_EQ(o.exit_code, 0) << o.out << o.err;
  EXPECT_EQ(o.out.rfind("update_state=", 0), 0u) << o.out;
  EXPECT_EQ(o.out.find("update_state=error"), std::string::npos) << o.out;
  EXPECT_EQ(read_all(root + "/var/update/corvid_update.ini"), description);
  EXPECT_TRUE(std::filesystem::exists(root + "/var/update/corvid_update_status.xml"));
  EXPECT_TRUE(std::filesystem::exists(root + "/log/corvid_update.log"));
  const auto served = server.requests(1);
  ASSERT_FALSE(served.empty());
  EXPECT_EQ(served.front().target, "/repo/update.ini");

  const outcome_t xml = run({"--root", root, "status", "--xml"});
  EXPECT_EQ(xml.exit_code, 0);
  EXPECT_EQ(xml.out.rfind("<update-status result=", 0), 0u) << xml.out;
}

}  // namespace
