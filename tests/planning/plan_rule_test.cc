// The per-file decision, by the state a file comes from and by what changed
// in its rule, for a file whose update is still needed and for one whose
// version the machine already has.
#include <gtest/gtest.h>
#include <unistd.h>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "planning/plan_rule.h"

namespace update {
namespace {

enum change_t { nothing, version_raised, hash_changed, hash_case_only, size_changed, file_gone };

struct row_t {
  file_state_t from;
  change_t change;
  bool needed;  // the version record is below the rule's version
  file_state_t to;
  bool download_kept;  // the partial and the finished file are still there
  const char* logged;  // a text the decision logs, or ""
};

TEST(PlanRule, DecidesEachFileByItsStateAndWhatChanged) {
  const row_t rows[] = {
      {file_undecided, nothing, true, file_outofdate, true, ""},
      {file_uptodate, nothing, true, file_outofdate, true, ""},
      {file_outofdate, nothing, true, file_outofdate, true, ""},
      {file_download, nothing, true, file_outofdate, true, "previous download operation has not been completed"},
      {file_downloaded, nothing, true, file_downloaded, true, " resume from state: downloaded, current version: 1"},
      {file_install, nothing, true, file_downloaded, true, "previous installation operation was not successful"},
      {file_install, file_gone, true, file_outofdate, true, "resume from state: outofdate"},
      {file_installed, nothing, true, file_installed, true, " resume from state: installed"},
      {file_downloaded, version_raised, true, file_outofdate, false, "[f] update version changed: 2, was: 1.5"},
      {file_uptodate, version_raised, true, file_outofdate, false, "[f] update version changed"},
      {file_downloaded, hash_changed, true, file_outofdate, false, "[f] hash of downloaded file changed: #T:bb"},
      {file_downloaded, hash_case_only, true, file_downloaded, true, ""},
      {file_download, size_changed, true, file_outofdate, true, "[f] file size changed: 20, was: 10"},
      {file_undecided, nothing, false, file_uptodate, true, ""},
      {file_uptodate, nothing, false, file_uptodate, true, ""},
      {file_outofdate, nothing, false, file_uptodate, false, "[f] update not finished, state was: outofdate"},
      {file_download, nothing, false, file_uptodate, false, "update not finished"},
      {file_downloaded, nothing, false, file_uptodate, false, "update not finished"},
      {file_install, nothing, false, file_uptodate, false, "update not finished"},
      {file_installed, nothing, false, file_uptodate, true, ""},
      {file_installed, version_raised, false, file_uptodate, false, "[f] update version changed"},
  };
  for (const auto& row : rows) {
    reset_module_for_tests();
    fixtures::scratch_dir_t dir;
    fixtures::log_records_t log;
    const std::string old_version = row.change == version_raised ? "1.5" : "2";
    dir.write("f.version", row.needed ? "# record\n\n 1 \n" : "2\n");
    const std::string partial = dir.write("f.download." + old_version, "part");
    if (row.change != file_gone) dir.write("f", "whole");

    file_rule_t rule;
    rule.update_version = "2";
    file_entry_t& entry = rule.entries.emplace_back();
    entry.name = "f";
    entry.local_path = dir.path("f");
    entry.hash = row.change == hash_changed ? "#T:bb" : row.change == hash_case_only ? "AA" : "#T:aa";
    entry.size = row.change == size_changed ? 20 : 10;
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      status.save_enabled = false;
      file_status_t& f = status.file_entry("f");
      f.state = row.from;
      f.update_version = old_version;
      f.download_hash = "#T:aa";
      f.total_size = 10;
      f.uptodate_time = "then";
      f.error = "old error";
    }
    plan_rule(rule, dir.path());

    const std::string what = std::string(file_state_text(row.from)) + "/" + std::to_string(row.change) +
                             (row.needed ? " needed" : " reached");
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    const file_status_t& f = status.files.front();
    EXPECT_EQ(f.state, row.to) << what;
    EXPECT_EQ(f.update_version, "2") << what;
    EXPECT_EQ(f.current_version, row.needed ? "1" : "2") << what;
    EXPECT_EQ(f.error, "") << what;
    EXPECT_EQ(access(partial.c_str(), F_OK) == 0, row.download_kept) << what;
    if (row.change != file_gone) {
      EXPECT_EQ(access(dir.path("f").c_str(), F_OK) == 0, row.download_kept) << what;
    }
    EXPECT_EQ(f.download_hash.empty(), !row.download_kept) << what;
    // A needed file always learns the rule's size.
    EXPECT_EQ(f.total_size, row.needed ? entry.size : row.download_kept ? 10u : 0u) << what;
    // Only a file that newly reaches the version is stamped.
    EXPECT_EQ(f.uptodate_time == "then", row.needed || row.from == file_uptodate) << what;
    if (*row.logged) {
      EXPECT_EQ(log.all(row.logged).size(), 1u) << what << ": " << row.logged;
    }
  }
}

}  // namespace
}  // namespace update
