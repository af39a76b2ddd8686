// The end-of-run passes: versions on disk, kept hashes.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/hash_file.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

class StatusWrapup : public StatusTest {
 protected:
  file_status_t& add_file(const std::string& name, int32_t state, const std::string& update_version) {
    file_status_t& f = status.file_entry(name);
    f.state = static_cast<file_state_t>(state);
    f.update_version = update_version;
    f.available = true;
    return f;
  }
  bool exists(const std::string& name) const { return std::filesystem::exists(dir_.path(name)); }
  std::lock_guard<std::recursive_mutex> hold_{status.lock};
};

TEST_F(StatusWrapup, VerifyVersionsMovesStatesByTheVersionOnDisk) {
  const struct {
    int32_t state;
    const char* on_disk;  // the version record, or none
    int32_t expected_state;
    bool notice;  // the "update state was" line, with the download deleted
  } rows[] = {
      {3, "2.0", 1, true},  {4, "2.1", 1, true},  {0, "2.0", 1, true},    {6, "2.0", 1, false}, {6, "1.0", 6, false},
      {1, "1.0", 2, false}, {1, nullptr, 2, false}, {1, "2.0", 1, false}, {2, "1.0", 2, false},
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
    EXPECT_EQ(exists(name) || exists(name + ".download.2.0"), !row.notice) << label;
    auto notices = logs.all("update state was");
    ASSERT_EQ(notices.size(), row.notice ? 1u : 0u) << label;
    if (row.notice) {
      EXPECT_EQ(notices[0].attrs[0], "[" + name + "] update state was: " + file_state_text(row.state) +
                                         ", current version: " + row.on_disk + ", update version: 2.0");
    }
  }
}

TEST_F(StatusWrapup, RehashRecalculatesKeptHashesInPlace) {
  const std::string path = dir_.write("kept.bin", "contents"), missing = dir_.path("missing.bin");
  std::string gost, sha;
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "", gost));
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "#SHA256:", sha));
  status.hashes.entries[path] = {"#GOST3411_256_2012:", "#SHA256:00stale"};
  status.hashes.entries[missing] = {"#SHA256:"};

  status.rehash();
  EXPECT_EQ(status.hashes.entries[path], (string_list_t{gost, sha}));
  EXPECT_EQ(status.hashes.entries[missing], (string_list_t{"#SHA256:"}));
  EXPECT_EQ(log_text(), "367 hash file: " + path + ", hash: " + gost + ";367 hash file: " + path + ", hash: " + sha +
                            ";365 [hash] failed to calc hash for file: " + missing + ", hash type: #SHA256:;");
  EXPECT_TRUE(status.messages.empty());  // a log line only
}

}  // namespace
}  // namespace update::testing
