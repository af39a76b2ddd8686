#include <gtest/gtest.h>

#include <mutex>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "status/status.h"

namespace {

using update::file_status_t;
using update::status;

class StatusWrapup : public ::testing::Test {
 protected:
  void SetUp() override { update::reset_module_for_tests(); }
  void TearDown() override { status.reset(); }

  file_status_t& add_file(const std::string& name, int32_t state, const std::string& update_version) {
    file_status_t& f = status.file_entry(name);
    f.state = static_cast<update::file_state_t>(state);
    f.update_version = update_version;
    f.available = true;
    return f;
  }
  bool exists(const std::string& name) const { return update::platform::path_exists(dir_.path(name).c_str()); }

  fixtures::scratch_dir_t dir_;
  std::lock_guard<std::recursive_mutex> hold_{status.lock};
};

TEST_F(StatusWrapup, VerifyVersionsMovesStatesByTheVersionOnDisk) {
  const struct {
    int32_t state;
    const char* on_disk;  // the version record, or none
    int32_t expected_state;
    bool notice;  // the "update state was" line, with the download deleted
  } rows[] = {
      {3, "2.0", 1, true},     {4, "2.1", 1, true},  {0, "2.0", 1, true},     {6, "2.0", 1, false},
      {6, "1.0", 6, false},    {1, "1.0", 2, false}, {1, nullptr, 2, false},  {1, "2.0", 1, false},
      {2, "1.0", 2, false},
  };
  int index = 0;
  for (const auto& row : rows) {
    status.reset();
    fixtures::log_records_t logs;
    const std::string name = "f" + std::to_string(index++), label = name + " state " + std::to_string(row.state);
    if (row.on_disk) dir_.write(name + ".version", row.on_disk);
    dir_.write(name, "payload");
    dir_.write(name + ".download.2.0", "partial");
    file_status_t& f = add_file(name, row.state, "2.0");

    EXPECT_EQ(status.verify_versions(dir_.path()), row.state != row.expected_state) << label;
    EXPECT_EQ(f.state, row.expected_state) << label;
    EXPECT_EQ(f.current_version, row.on_disk ? row.on_disk : "") << label;
    EXPECT_EQ(f.uptodate_time.empty(), row.expected_state != 1 || row.state == 1) << label;
    EXPECT_EQ(exists(name), !row.notice) << label;
    EXPECT_EQ(exists(name + ".download.2.0"), !row.notice) << label;
    auto notices = logs.all("update state was");
    ASSERT_EQ(notices.size(), row.notice ? 1u : 0u) << label;
    if (row.notice) {
      EXPECT_EQ(notices[0].id, 366);
      EXPECT_EQ(notices[0].attrs[0], "[" + name + "] update state was: " + update::file_state_text(row.state) +
                                         ", current version: " + row.on_disk + ", update version: 2.0");
    }
  }
}

TEST_F(StatusWrapup, VerifyVersionsSkipsEntriesWithoutVersionAndTakesTheAgentsOwn) {
  dir_.write("f.version", "9");
  dir_.write("agent.bin.version", "0.0.1");  // ignored for the agent's own files
  file_status_t& plain = add_file("f", 3, "");
  file_status_t& own = add_file("agent.bin", 5, update::current_version_text());
  own.type = 1;
  own.error = "stays";
  EXPECT_TRUE(status.verify_versions(dir_.path()));
  EXPECT_EQ(plain.state, 3);
  EXPECT_EQ(plain.current_version, "");
  EXPECT_EQ(own.current_version, update::current_version_text());
  EXPECT_EQ(own.state, 1);
  EXPECT_EQ(own.error, "stays");
}

TEST_F(StatusWrapup, RehashRecalculatesKeptHashesInPlace) {
  fixtures::log_records_t logs;
  const std::string path = dir_.write("kept.bin", "contents"), missing = dir_.path("missing.bin");
  std::string gost, sha;
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "", gost));
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "#SHA256:", sha));
  status.hashes.entries[path] = {"#GOST3411_256_2012:", "#SHA256:00stale"};
  status.hashes.entries[missing] = {"#SHA256:"};

  status.rehash();
  EXPECT_EQ(status.hashes.entries[path], (update::string_list_t{gost, sha}));
  EXPECT_EQ(status.hashes.entries[missing], (update::string_list_t{"#SHA256:"}));
  auto done = logs.all("file: " + path + ", hash: ");
  ASSERT_EQ(done.size(), 2u);
  EXPECT_EQ(done[1].id, 367);
  EXPECT_EQ(done[1].attrs, (std::vector<std::string>{"hash", "file: " + path + ", hash: " + sha}));
  auto failed = logs.all("[hash] failed");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].id, 365);
  EXPECT_EQ(failed[0].attrs[0], "[hash] failed to calc hash for file: " + missing + ", hash type: #SHA256:");
  EXPECT_TRUE(status.messages.empty());  // a log line only
}

TEST_F(StatusWrapup, LogFilesSumsUpEachFile) {
  fixtures::log_records_t logs;
  const struct {
    int32_t state;
    bool skipped, available;
    std::string current, update, installed, uptodate, error;
    uint16_t id;
    std::string line;  // the attributes joined by " | "
  } rows[] = {
      {2, true, true, "1", "2", "", "", "boom", 366,
       "[f0] state: skipped, because of conditions specified in update.ini, was state: outofdate, current version: 1, "
       "update version: 2, error: boom"},
      {1, false, false, "", "", "", "T1", "", 366,
       "[f1] state: skipped, because corresponding update.ini is unavailable, was state: uptodate, uptodate_time: T1"},
      {3, false, true, "", "", "", "", "e", 365, "[f2] state: download, error: e"},
      {1, false, true, "2", "2", "", "T2", "", 367, "f3 | state: uptodate, current version: 2, uptodate_time: T2"},
      {6, false, true, "", "3", "T3", "", "", 367, "f4 | state: installed, update version: 3, installed_time: T3"},
      {42, false, true, "", "", "", "", "", 367, "f5 | state: "},
  };
  int index = 0;
  for (const auto& row : rows) {
    file_status_t& f = add_file("f" + std::to_string(index++), row.state, row.update);
    f.skipped = row.skipped;
    f.available = row.available;
    f.current_version = row.current;
    f.installed_time = row.installed;
    f.uptodate_time = row.uptodate;
    f.error = row.error;
  }
  status.log_files();
  auto records = logs.all();
  ASSERT_EQ(records.size(), std::size(rows));
  for (size_t i = 0; i < records.size(); ++i) {
    std::string line;
    for (const auto& a : records[i].attrs) line += (line.empty() ? "" : " | ") + a;
    EXPECT_EQ(records[i].id, rows[i].id) << rows[i].line;
    EXPECT_EQ(line, rows[i].line);
  }
}

}  // namespace
