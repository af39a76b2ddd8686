// Several sources in one run, against a real server: one rule per file, a
// copy dropped quietly, and files withdrawn only when every source loaded.
#include <gtest/gtest.h>
#include <unistd.h>

#include "fixtures/nginx_server.h"
#include "frame/frame_fixture.h"
#include "planning/reconcile.h"

namespace update {
namespace {

// A rule whose file needs no download to be told apart: no hash, no size.
std::string ini_with(int index, const std::string& file) {
  const std::string n = std::to_string(index);
  return "[corvid]\nversion." + n + "=2\nfile." + n + "=" + file + "\nexec." + n + "=true\n";
}

class SourcesTest : public testing::ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    LPARAMS::server::set_verify_downloads(false);
    std::string error;
    ASSERT_TRUE(server_.start(error)) << error;
    start_module();
  }
  std::string publish(const std::string& dir, const std::string& ini) {
    EXPECT_TRUE(server_.put_file(dir + "/update.ini", ini));
    return server_.url("/" + dir + "/");
  }
  std::string names_and_states() {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    std::string text;
    for (const auto& f : status.files)
      text += f.name + ":" + file_state_text(f.state) + (f.available ? "" : "(unavailable)") + " ";
    return text;
  }
  std::string message_texts() {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    std::string text;
    for (const auto& m : status.messages) text += "[" + m.text + "]";
    return text;
  }

  fixtures::nginx_server_t server_;
};

TEST_F(SourcesTest, ACopyIsDroppedQuietlyAndAClaimedFileRefusesItsSource) {
  const std::string a = publish("a", ini_with(1, "x.bin"));
  const std::string copy = publish("copy", ini_with(1, "x.bin"));
  const std::string rival = publish("rival", ini_with(1, "x.bin") + ini_with(2, "y.bin").substr(9));
  run_and_wait(Command::check, {a, copy});
  EXPECT_EQ(message_texts(), "[][][]");
  EXPECT_EQ(logged("skipped, because same was obtained from: " + a), 1u);
  EXPECT_EQ(names_and_states(), "x.bin:outofdate ");

  run_and_wait(Command::check, {a, rival});
  EXPECT_EQ(message_texts(), "[][][[x.bin] Duplicated file name in update.ini from: " + rival +
                                 ", also present in update.ini from: " + a + "]");
  EXPECT_EQ(names_and_states(), "x.bin:outofdate ");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.result, status_error);
}

TEST_F(SourcesTest, AWithdrawnFileGoesOnlyWhenEverySourceLoaded) {
  const std::string a = publish("a", ini_with(1, "x.bin"));
  const std::string b = publish("b", ini_with(1, "y.bin"));
  run_and_wait(Command::check, {a, b});
  ASSERT_EQ(names_and_states(), "x.bin:outofdate y.bin:outofdate ");
  const std::string downloaded = scratch_.write("update/x.bin", "an earlier download");

  publish("a", ini_with(1, "z.bin"));
  run_and_wait(Command::check, {a, server_.url("/gone/")});
  EXPECT_EQ(names_and_states(), "x.bin:outofdate(unavailable) y.bin:outofdate(unavailable) z.bin:outofdate ");
  EXPECT_EQ(access(downloaded.c_str(), F_OK), 0);

  run_and_wait(Command::check, {a, b});
  EXPECT_EQ(names_and_states(), "y.bin:outofdate z.bin:outofdate ");
  EXPECT_NE(access(downloaded.c_str(), F_OK), 0);
  EXPECT_EQ(logged("[x.bin] file removed from update, current version: , state: outofdate"), 1u);
}

// The merged sources' declarations replace the kept hashes, carrying their
// values over; an undeclared one goes only when every source was merged.
TEST(Reconcile, KeepsUndeclaredHashesWhileASourceIsMissing) {
  for (const bool all_merged : {false, true}) {
    status_t s;
    s.save_enabled = false;
    s.hashes.store("kept", "#T:1");
    s.hashes.store("dropped", "#T:2");
    std::list<update_ini_t> sources(2);
    sources.front().merged = true;
    sources.front().status_hash_of = {"#T:kept", "#U:kept", "#T:new"};
    sources.back().merged = all_merged;
    plans_t plans;
    reconcile_status(sources, s, plans, "/nonexistent/");
    std::string kept;
    for (const auto& [file, list] : s.hashes.entries)
      for (const auto& hash : list) kept += file + "=" + hash + " ";
    EXPECT_EQ(kept, std::string(all_merged ? "" : "dropped=#T:2 ") + "kept=#T:1 kept=#U: new=#T: ") << all_merged;
  }
}

}  // namespace
}  // namespace update
