// The run driver: its early exits, what a source's URI becomes, the status
// asked for from another thread, and the gates of the download and install
// steps.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>
#include <tuple>

#include "fixtures/fault_server.h"
#include "frame/frame_fixture.h"
#include "frame/listener.h"
#include "frame/run_gates.h"
#include "platform/hash_file.h"

namespace update::testing {
namespace {

using RunTest = ModuleTest;

TEST_F(RunTest, CurlInitFailureEndsTheRunInItsFirstMessage) {
  static int curl_inits = 0;
  start_module();
  run_curl_init = [] { return ++curl_inits, static_cast<CURL*>(nullptr); };
  run_and_wait(Command::check, {"http://127.0.0.1:1/"});
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.result, status_error);
  ASSERT_EQ(status.messages.size(), 1u);
  EXPECT_EQ(status.messages.front().text, "Download error: CURL init failed");
  EXPECT_EQ(curl_inits, 1);
}

// The agent's directories lose one trailing separator, the update directory all of them; the update
// directory written differently is still the one locked at start, and another one is refused.
TEST_F(RunTest, SourceUriIsExpandedWithThePredefinedVariables) {
  using agent::paths_t;
  const std::string specs = "corvid.linux.x86_64.corvid";
  const std::tuple<std::string, std::string paths_t::*, std::string> vars[] = {  // a directory's comes with one "/" more
      {"agent_version", nullptr, "1.0.0"},       {"agent_specs", nullptr, specs},
      {"current_product_specs", nullptr, specs}, {"update_path", nullptr, update_dir_},
      {"update_ini_format", nullptr, "1.0"},     {"agent_tmp", &paths_t::agent_tmp, "/t/"},
      {"agent_bin", &paths_t::agent_bin, "/b/"}, {"agent_lib", &paths_t::agent_lib, "/l/"},
      {"agent_etc", &paths_t::agent_etc, "/e/"}, {"system_etc", &paths_t::system_etc, "/se/"},
      {"system_log", &paths_t::system_log, "/sl/"}, {"system_var", &paths_t::system_var, "/sv/"},
      {"system_var_etc", &paths_t::system_var_etc, "/sve/"}, {"system_tmp", &paths_t::system_tmp, "/st/"},
      {"x", nullptr, "$(x)"}};
  paths_t paths = agent::paths_under(root_);
  std::string uri = "http://127.0.0.1:1/?", expanded = uri;
  for (const auto& [name, field, value] : vars) {
    if (field) paths.*field = value + "/";
    uri += name + "=$(" + name + ")&", expanded += name + "=" + value + "&";
  }
  agent::configure_paths(paths);
  start_module();
  LPARAMS::server::set_update_dir(update_dir_ + "//");
  run_and_wait(Command::check, {uri});
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    ASSERT_EQ(status.messages.size(), 2u);
    EXPECT_EQ(status.messages.back().uri, expanded);
    EXPECT_TRUE(status.messages.front().text.empty() && !status.messages.back().text.empty());  // its own message
  }
  LPARAMS::server::set_update_dir(root_ + "/moved");
  run_and_wait(Command::check, {uri});
  EXPECT_EQ(status_line(true).second, "update_msg=Update directory changed to " + root_ + "/moved: the module holds " +
                                          update_dir_ + " since its start; restart it to use the new one");
  EXPECT_NE(read_file(update_dir_ + "/corvid_update_status.xml").find("Update directory changed"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(root_ + "/moved"));
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.messages.size(), 1u);  // no source was fetched
}

// The daemon's and the bridge's threads ask for the status all through a run whose download trickles: the
// sizes they are told only grow and never pass the total. Under the thread sanitizer a query, or a step of
// the run, that skips a lock is likely to fail here; many files and sources stretch such steps.
TEST_F(RunTest, StatusQueriesDuringARunSeeProgressThatOnlyGrows) {
  std::filesystem::create_directories(scratch_.path("site/r"));
  const std::string file = scratch_.write("site/r/f.bin", std::string(3000, 'x'));
  std::string hash;
  ASSERT_TRUE(HashFileChecker::CalcHash(file, "", hash));
  std::string ini = "[corvid.file=f.bin]\nupdate_version=2\nexec=true\ndownload_hash=" + hash + "\n";
  for (int i = 0; i < 200; ++i)
    ini += "[corvid.file=n" + std::to_string(i) + "]\nupdate_version=2\nexec=true\ndownload_file=$(null)\n";
  scratch_.write("site/r/update.ini", ini);
  fixtures::fault_server_t server;
  ASSERT_TRUE(server.start(file, {}, "trickle&chunk=300&interval_ms=30", scratch_.path("site")));
  start_module();
  std::atomic<bool> done{false};
  int downloading = 0;
  std::string saved;  // while bytes arrive: what a crash would leave
  std::thread watcher([&] {
    for (uint64_t last = 0; !done;) {
      std::string state, message, xml, reply;
      get_status(state, message, true);
      status.lock.lock(), status.xml.clear(), status.lock.unlock();  // rendered afresh: every field is read
      get_status_xml(xml);
      ASSERT_TRUE(write_binary_status("", reply));
      uint64_t sizes[2];  // behind the result's four bytes: downloaded and total
      if (reply.compare(0, 4, std::string("\x02\0\0\0", 4)) != 0) continue;
      ++downloading;
      std::memcpy(sizes, reply.data() + 4, sizeof sizes);
      EXPECT_TRUE(last <= sizes[0] && sizes[0] <= sizes[1]) << last << " " << sizes[0] << " " << sizes[1];
      last = sizes[0];
      if (sizes[0] > 0 && saved.empty()) saved = read_file(update_dir_ + "/corvid_update_status.xml");
    }
  });
  run_and_wait(Command::download, {server.url("/r/"), server.url("/r/"), server.url("/r/"), server.url("/r/")});
  done = true;
  watcher.join();
  EXPECT_GT(downloading, 0);
  EXPECT_NE(saved.find("<file name=\"f.bin\" state=\"download"), std::string::npos) << saved;
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.file_entry("f.bin").state, file_downloaded);
}

file_status_t entry(int state, bool available = true, bool skipped = false, bool skip_downloading = false,
                    const char* error = "") {
  file_status_t f;
  f.name = "f" + std::to_string(state);
  f.state = static_cast<file_state_t>(state);
  f.available = available, f.skipped = skipped, f.skip_downloading = skip_downloading, f.error = error;
  return f;
}

TEST(RunGates, EachStepOpensOnTheFirstFileItHasWorkFor) {
  struct row_t {
    const char* what;
    std::vector<file_status_t> files;
    bool download_opens, install_opens;
  };
  const row_t rows[] = {
      {"outofdate", {entry(1), entry(2)}, true, false}, {"interrupted download", {entry(3)}, true, false},
      {"downloaded", {entry(4)}, false, true},
      {"not available or skipped", {entry(2, false), entry(4, false), entry(2, true, true), entry(4, true, true)},
       false, false},
      {"installed without download", {entry(2, true, false, true)}, false, true},
      {"an error does not hold the download back", {entry(2, true, false, false, "e")}, true, false},
      {"downloaded with error", {entry(4, true, false, false, "e")}, false, false},
      {"one with error, one without", {entry(4, true, false, false, "e"), entry(4)}, false, true},
      {"install cut off", {entry(5)}, false, false},
  };
  for (const auto& row : rows) {
    for (const bool install : {false, true}) {
      status_t s;
      s.files.assign(row.files.begin(), row.files.end());
      s.result = status_prepare, s.save_enabled = false;
      const uint64_t revision = s.revision;
      const bool opens = install ? row.install_opens : row.download_opens;
      const std::string what = std::string(install ? "install: " : "download: ") + row.what;
      EXPECT_EQ((install ? open_install_gate : open_download_gate)(s), opens) << what;
      EXPECT_EQ(s.result, !opens ? status_prepare : install ? status_install : status_download) << what;
      EXPECT_EQ(s.client_visible, opens) << what;
      EXPECT_EQ(s.revision, revision) << what << ": an opened gate makes no news";
    }
  }
  status_t s;
  s.current_file = &s.files.emplace_back(entry(1));
  open_install_gate(s);
  EXPECT_EQ(s.current_file, nullptr);
}

}  // namespace
}  // namespace update::testing
