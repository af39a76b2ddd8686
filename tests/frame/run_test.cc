// The run driver: its early exits, what a source's URI becomes, sources that
// fail without stopping the run, and the gates of the download and install
// steps.
#include <gtest/gtest.h>

#include <fstream>

#include "frame/frame_fixture.h"
#include "frame/run_gates.h"

namespace update {
namespace {

using testing::held_run_t;

int curl_inits = 0;
CURL* counting_failed_init() {
  ++curl_inits;
  return nullptr;
}

class RunTest : public testing::ModuleTest {
 protected:
  void run_and_wait(Command command, const std::list<std::string>& uris) {
    submit(command, uris);
    agent::drain_event_manager();
  }
};

TEST_F(RunTest, EarlyExitsTellTheirTextInTheFirstMessageAndEndInError) {
  struct row_t {
    Command command;
    std::list<std::string> uris;
    const char* text;
    int curl_inits;
  };
  const row_t rows[] = {
      {Command::unknown, {"http://127.0.0.1:1/"}, "Unknown update command", 0},
      {Command::install, {}, "Download error: URI not specified (should be obtained from the Policy Managment Server)", 0},
      {Command::check, {"http://127.0.0.1:1/"}, "Download error: CURL init failed", 1},
  };
  start_module();
  run_curl_init = counting_failed_init;
  for (const auto& row : rows) {
    curl_inits = 0;
    run_and_wait(row.command, row.uris);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(status.result, status_error) << row.text;
    ASSERT_EQ(status.messages.size(), 1u) << row.text;
    EXPECT_EQ(status.messages.front().text, row.text);
    EXPECT_EQ(curl_inits, row.curl_inits) << row.text;
    EXPECT_EQ(count_logged(log_id_failure, {row.text}), 1u);
  }
}

TEST_F(RunTest, SourceUriIsExpandedWithThePredefinedVariables) {
  start_module();
  const std::string uri =
      "http://127.0.0.1:1/$(agent_version)/$(agent_specs)/$(current_product_specs)/"
      "?u=$(update_path)&v=$(system_var)&t=$(agent_tmp)&f=$(update_ini_format)&x=$(nothing)";
  const std::string expanded = "http://127.0.0.1:1/1.0.0/corvid.linux.x86_64.corvid/corvid.linux.x86_64.corvid/?u=" +
                               update_dir_ + "&v=" + root_ + "/var&t=" + root_ + "/tmp&f=1.0&x=$(nothing)";
  LPARAMS::server::set_update_dir(update_dir_ + "//");
  run_and_wait(Command::check, {uri});
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  ASSERT_EQ(status.messages.size(), 2u);
  EXPECT_EQ(status.messages.back().uri, expanded);
  // The unreachable source's failure landed in its own message.
  EXPECT_FALSE(status.messages.back().text.empty());
  EXPECT_TRUE(status.messages.front().text.empty());
  EXPECT_EQ(status.result, status_error);
}

TEST_F(RunTest, FailedSourceDoesNotStopTheNextOne) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  ASSERT_TRUE(server.put_file("good/update.ini", "[corvid]\nversion.1=2.0\nfile.1=a.bin\n"
                                                 "hash.1=#GOST3411_256_2012:00\nexec.1=true\n"));
  start_module();
  const std::string missing = server.url("/missing/");
  const std::string good = server.url("/good/");
  run_and_wait(Command::check, {missing, good});

  const auto served = server.requests(2);
  ASSERT_EQ(served.size(), 2u);
  EXPECT_EQ(served[0].target, "/missing/update.ini");
  EXPECT_EQ(served[1].target, "/good/update.ini");
  std::ifstream saved(update_dir_ + "/corvid_update.ini");
  std::string first_line;
  std::getline(saved, first_line);
  EXPECT_EQ(first_line, "[corvid]");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.result, status_error);
  ASSERT_EQ(status.messages.size(), 3u);
  auto it = status.messages.begin();
  EXPECT_TRUE(it->text.empty());
  ++it;
  EXPECT_EQ(it->uri, missing);
  EXPECT_FALSE(it->text.empty());
  ++it;
  EXPECT_EQ(it->uri, good);
  EXPECT_TRUE(it->text.empty()) << it->text;
}

struct gate_row_t {
  const char* what;
  std::vector<file_status_t> files;
  bool opens;
};

file_status_t entry(int state, bool available = true, bool skipped = false, bool skip_downloading = false,
                    const char* error = "") {
  file_status_t f;
  f.name = "f" + std::to_string(state);
  f.state = static_cast<file_state_t>(state);
  f.available = available;
  f.skipped = skipped;
  f.skip_downloading = skip_downloading;
  f.error = error;
  return f;
}

void check_gate(bool (*gate)(status_t&), status_code_t opened_result, const std::vector<gate_row_t>& rows) {
  for (const auto& row : rows) {
    status_t s;
    s.files.assign(row.files.begin(), row.files.end());
    s.result = status_prepare;
    s.save_enabled = false;
    const uint64_t revision = s.revision;
    EXPECT_EQ(gate(s), row.opens) << row.what;
    EXPECT_EQ(s.result, row.opens ? opened_result : status_prepare) << row.what;
    EXPECT_EQ(s.client_visible, row.opens) << row.what;
    EXPECT_EQ(s.revision, revision) << row.what;
  }
}

TEST(RunGates, DownloadOpensOnTheFirstFileToFetch) {
  check_gate(open_download_gate, status_download,
             {
                 {"nothing", {}, false},
                 {"only uptodate", {entry(1), entry(1)}, false},
                 {"outofdate", {entry(1), entry(2)}, true},
                 {"interrupted download", {entry(3)}, true},
                 {"downloaded waits for install", {entry(4)}, false},
                 {"not available", {entry(2, false)}, false},
                 {"skipped", {entry(2, true, true)}, false},
                 {"installed without download", {entry(2, true, false, true)}, false},
                 {"an error does not hold it back", {entry(2, true, false, false, "e")}, true},
             });
}

TEST(RunGates, InstallOpensOnTheFirstFileThatCanGo) {
  check_gate(open_install_gate, status_install,
             {
                 {"nothing", {}, false},
                 {"downloaded", {entry(4)}, true},
                 {"downloaded with error", {entry(4, true, false, false, "e")}, false},
                 {"one with error, one without", {entry(4, true, false, false, "e"), entry(4)}, true},
                 {"installed without download", {entry(2, true, false, true)}, true},
                 {"outofdate still to fetch", {entry(2)}, false},
                 {"not available", {entry(4, false)}, false},
                 {"skipped", {entry(4, true, true)}, false},
                 {"install cut off", {entry(5)}, false},
             });
  status_t s;
  file_status_t& f = s.files.emplace_back(entry(1));
  s.current_file = &f;
  open_install_gate(s);
  EXPECT_EQ(s.current_file, nullptr);
}

}  // namespace
}  // namespace update
