// Planning: the per-file decision by the state a file comes from and what
// changed in its rule, and the merge of sources and what the status keeps.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "status/status_fixture.h"
#include "frame/module.h"
#include "planning/merge.h"
#include "planning/plan_rule.h"
#include "planning/reconcile.h"

namespace update {
namespace {

enum change_t { nothing, version_raised, hash_changed, hash_case_only, size_changed, file_gone, record_changed, no_entries };

struct row_t {
  file_state_t from;
  change_t change;
  bool needed;  // the version record is below the rule's version
  file_state_t to;
  bool download_kept;  // the partial and the finished file are still there
  const char* logged;  // a text the decision logs, or ""
  bool patched = false;        // the rule offers a patch: the finished file stays as its base
  const char* base = nullptr;  // then the base the status records (it recorded "#T:0" before)
};

TEST(PlanRule, DecidesEachFileByItsStateAndWhatChanged) {
  const row_t rows[] = {
      {file_undecided, nothing, true, file_outofdate, true, ""},
      {file_uptodate, nothing, true, file_outofdate, true, ""},
      {file_download, nothing, true, file_outofdate, true, "previous download operation has not been completed"},
      {file_downloaded, nothing, true, file_downloaded, true, " resume from state: downloaded, current version: 1"},
      {file_install, nothing, true, file_downloaded, true, "previous installation operation was not successful"},
      {file_install, file_gone, true, file_outofdate, true, "resume from state: outofdate"},
      {file_installed, nothing, true, file_installed, true, " resume from state: installed"},
      {file_downloaded, version_raised, true, file_outofdate, false, "[f] update version changed: 2, was: 1.5"},
      {file_downloaded, hash_changed, true, file_outofdate, false, "[f] hash of downloaded file changed: #T:bb"},
      {file_downloaded, hash_case_only, true, file_downloaded, true, ""},
      {file_download, size_changed, true, file_outofdate, true, "[f] file size changed: 20, was: 10"},
      {file_undecided, nothing, false, file_uptodate, true, ""},
      {file_uptodate, nothing, false, file_uptodate, true, ""},
      {file_outofdate, nothing, false, file_uptodate, false, "[f] update not finished, state was: outofdate"},
      {file_install, nothing, false, file_uptodate, false, "update not finished"},
      {file_installed, nothing, false, file_uptodate, true, ""},
      {file_installed, version_raised, false, file_uptodate, false, "[f] update version changed"},
      // Somebody else wrote the version record; an install is expected to.
      {file_downloaded, record_changed, true, file_downloaded, true, "[f] current version changed: 1, was: 0.9"},
      {file_installed, record_changed, false, file_uptodate, true, ""},
      // A rule that installs without a download: only the versions count, nothing fetched goes. Its
      // record changed too.
      {file_undecided, no_entries, true, file_outofdate, true, "[f] current version changed: 1, was: 0.9"},
      {file_installed, no_entries, true, file_installed, true, ""},
      {file_outofdate, no_entries, false, file_uptodate, true, "[f] current version changed: 2, was: 0.9"},
      {file_uptodate, no_entries, false, file_uptodate, true, "[f] current version changed: 2, was: 0.9"},
      {file_uptodate, version_raised, true, file_outofdate, false, "[f] update version changed", true, "#T:aa"},
      {file_installed, version_raised, true, file_outofdate, false, "[f] update version changed", true, "#T:aa"},
      {file_downloaded, hash_changed, true, file_outofdate, false, "hash of downloaded file changed", true, "#T:aa"},
      {file_download, version_raised, true, file_outofdate, false, "[f] update version changed", true, "#T:0"},
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
    rule.file_name = "f";
    file_entry_t entry;
    entry.name = "f";
    entry.local_path = dir.path("f");
    entry.hash = row.change == hash_changed ? "#T:bb" : row.change == hash_case_only ? "AA" : "#T:aa";
    entry.size = row.change == size_changed ? 20 : 10;
    if (row.patched) entry.patches.emplace_back();
    if (row.change != no_entries) rule.entries.push_back(entry);
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      status.save_enabled = false;
      file_status_t& f = status.file_entry("f");
      f.state = row.from;
      f.update_version = old_version;
      f.download_hash = "#T:aa";
      f.download_size = f.total_size = 10;
      f.base_hash = "#T:0";
      f.uptodate_time = "then";
      f.error = "old error";
      f.current_version = row.change == record_changed || row.change == no_entries ? "0.9" : row.needed ? "1" : "2";
      f.skip_downloading = row.change == no_entries;  // as reconcile marks it
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
      EXPECT_EQ(access(dir.path("f").c_str(), F_OK) == 0, row.download_kept || row.patched) << what;
    }
    EXPECT_EQ(f.base_hash, row.patched ? row.base : row.download_kept ? "#T:0" : "") << what;
    EXPECT_EQ(f.download_hash.empty(), !row.download_kept) << what;
    // A needed file always learns the rule's size.
    EXPECT_EQ(f.total_size, row.needed ? entry.size : row.download_kept ? 10u : 0u) << what;
    // Only a file that newly reaches the version is stamped.
    EXPECT_EQ(f.uptodate_time == "then", row.needed || row.from == file_uptodate) << what;
    EXPECT_EQ(*row.logged ? log.all(row.logged).size() : 1u, 1u) << what << ": " << row.logged;
    EXPECT_EQ(log.all("current version changed").size(), std::strstr(row.logged, "current version changed") ? 1u : 0u)
        << what;
  }
}

// Declarations replace the kept hashes, carrying values over; what no source names goes only when every
// source was merged. A file its conditions let pass stays as it was, unplanned, and none is made for it.
TEST(Reconcile, DropsOnlyWhatEveryLoadedSourceLeftOut) {
  for (const bool all_merged : {false, true}) {
    fixtures::scratch_dir_t dir;
    status_t s;
    s.save_enabled = false;
    s.hashes.store("kept", "#T:1");
    s.hashes.store("dropped", "#T:2");
    s.file_entry("passed").state = file_installed;
    s.file_entry("withdrawn").update_version = "1";
    s.file_entry("corvid_update_serials");  // from a status saved before such names were refused
    dir.write("withdrawn", "whole"), dir.write("withdrawn.download.1", "partial"), dir.write("corvid_update_serials", "");
    std::list<update_ini_t> sources(2);
    sources.front().merged = true;
    sources.front().status_hash_of = {"#T:kept", "#U:kept", "#T:new"};
    auto& rules = sources.front().rules;
    rules.emplace_back().file_name = "passed";
    rules.emplace_back().file_name = "unknown";
    rules.emplace_back().update_version = "2";
    rules.back().entries.emplace_back().name = "f";
    sources.back().merged = all_merged;
    plans_t plans;
    reconcile_status(sources, s, plans, dir.path());
    std::string kept;
    for (const auto& [file, list] : s.hashes.entries)
      for (const auto& hash : list) kept += file + "=" + hash + " ";
    for (const auto& f : s.files) kept += f.name + ":" + file_state_text(f.state) + (f.skipped ? "(skipped) " : " ");
    EXPECT_EQ(kept, std::string(all_merged ? "" : "dropped=#T:2 ") + "kept=#T:1 kept=#U: new=#T: " +
                        "passed:installed(skipped) " + (all_merged ? "" : "withdrawn: corvid_update_serials: ") + "f: ")
        << all_merged;
    EXPECT_TRUE(plans.size() == 1 && plans.front() == &rules.back());
    // A withdrawn file goes from the disk too, the whole one and its download.
    EXPECT_EQ(access(dir.path("withdrawn").c_str(), F_OK) + access(dir.path("withdrawn.download.1").c_str(), F_OK),
              all_merged ? -2 : 0);
    EXPECT_EQ(access(dir.path("corvid_update_serials").c_str(), F_OK), 0);
  }
}

using MergeSource = testing::StatusTest;

// A source is merged when no merged source claims its names or brings the
// agent, and its exec_before_update succeeds; a rule without entries claims nothing.
TEST_F(MergeSource, RefusesAClaimedNameASecondAgentRuleAndAFailingCommand) {
  std::list<update_ini_t> sources(3);
  auto source = sources.begin();
  source->uri = "a", source->merged = true;
  source->rules.emplace_back().is_main = true;
  source->rules.back().entries.emplace_back().name = "x";
  source->rules.emplace_back().file_name = "setup";
  (++source)->uri = "u";
  source->rules.emplace_back().entries.emplace_back().name = "y";
  update_ini_t& ini = *++source;
  ini.uri = "b";
  const std::string claimed = "[x] Duplicated file name in update.ini from: b, also present in update.ini from: a";
  // main, an entry's name or a rule's file name (neither: no rule), commands, the error ("": merged)
  const std::tuple<bool, std::string, std::string, string_list_t, std::string> rows[] = {
      {false, "y", "", {}, ""},          {false, "setup", "", {}, ""},
      {false, "x", "", {}, claimed},     {false, "", "x", {}, claimed},
      {true, "x", "", {}, claimed},  // the file clash comes first
      {true, "z", "", {}, "Duplicated agent rule in update.ini from: b, also present in update.ini from: a"},
      {false, "", "", {"true", "false"}, "exec() exit: false, status: 1"},
  };
  for (const auto& [main, entry, file_name, exec, error] : rows) {
    quiet();
    ini.rules.clear();
    if (!entry.empty() || !file_name.empty()) {
      file_rule_t& rule = ini.rules.emplace_back();
      rule.is_main = main, rule.file_name = file_name;
      if (!entry.empty()) rule.entries.emplace_back().name = entry;
    }
    ini.exec_before_update = exec;
    EXPECT_EQ(merge_source(ini, sources), error.empty()) << entry << file_name;
    EXPECT_EQ(reported(), error) << entry << file_name;
  }
  // A description an earlier source gave already is dropped quietly.
  quiet();
  std::list<update_ini_t> fetched(1);
  fetched.front().uri = "a";
  dir_.write("corvid_update.ini", "[corvid]\n");
  ASSERT_TRUE(check_source_file(fetched, dir_.path(), "corvid_update.ini"));
  fetched.resize(2);
  dir_.write("corvid_update.ini", "[corvid]\nversion=2\n");
  EXPECT_TRUE(check_source_file(fetched, dir_.path(), "corvid_update.ini"));
  fetched.resize(3);
  dir_.write("corvid_update.ini", "[corvid]\n");
  EXPECT_FALSE(check_source_file(fetched, dir_.path(), "corvid_update.ini"));
  EXPECT_EQ(fetched.size(), 2u);
  EXPECT_EQ(logged("skipped, because same was obtained from: a"), 1u);
  EXPECT_EQ(reported(), "");
}

}  // namespace
}  // namespace update
