// The status records, what moves them, what the daemon is told, and the
// end-of-run passes over them.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/update.h"
#include "platform/hash_file.h"
#include "records/update_ini.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

// Files f0, f1, ... in the given states, available; a rule naming them all.
file_rule_t files_in_states(const std::vector<int>& states) {
  file_rule_t rule;
  for (size_t i = 0; i < states.size(); ++i) {
    rule.entries.emplace_back().name = "f" + std::to_string(i);
    file_status_t& f = status.file_entry(rule.entries.back().name);
    f.state = static_cast<file_state_t>(states[i]);
    f.available = true;
  }
  return rule;
}

TEST_F(StatusTest, DeriveResultFollowsTheWorstFile) {
  // message, error: a message's text, f0's error; or null
  const struct { std::vector<int> states; const char *message, *error; status_code_t expected; } rows[] = {
      {{}, nullptr, nullptr, status_uptodate},       {{1, 6}, nullptr, nullptr, status_installed},
      {{6, 4}, nullptr, nullptr, status_downloaded}, {{4, 2, 6}, nullptr, nullptr, status_outofdate},
      {{1, 3}, nullptr, nullptr, status_error},      {{1, 5}, nullptr, nullptr, status_error},
      {{0}, nullptr, nullptr, status_error},         {{1, 7}, nullptr, nullptr, status_error},
      {{1}, nullptr, "broken", status_error},        {{}, "Download error", nullptr, status_error},
      {{2}, "", nullptr, status_outofdate},
  };
  for (const auto& row : rows) {
    status.reset();
    files_in_states(row.states);
    if (row.error) status.files.front().error = row.error;
    if (row.message) status.messages.push_back({"", row.message, 0});
    if (!status.files.empty()) status.files.front().skipped = true;  // flags are no matter
    EXPECT_EQ(status.derive_result(), row.expected) << ::testing::PrintToString(row.states);
  }
}

TEST_F(StatusTest, SumsCountOnlyAvailableFilesWhoseSizesMayStillChange) {
  const struct { int state; bool available, skipped; uint64_t download, total; bool counted; } rows[] = {
      {2, true, false, 3, 10, true}, {1, true, false, 7, 7, true}, {1, true, false, 5, 7, false},
      {3, false, false, 4, 9, false}, {3, true, true, 4, 9, false}};
  for (const auto& row : rows) {
    status.reset();
    files_in_states({2, row.state});
    status.files.front().total_size = 100;
    file_status_t& f = status.files.back();
    f.available = row.available, f.skipped = row.skipped, f.download_size = row.download, f.total_size = row.total;
    EXPECT_EQ(status.sum_download_size(), row.counted ? row.download : 0) << "state " << row.state;
    EXPECT_EQ(status.sum_total_size(), 100 + (row.counted ? row.total : 0)) << "state " << row.state;
  }
}

TEST_F(StatusTest, RecordErrorKeepsTheFirstTextAndIgnoresOtherLevels) {
  file_rule_t rule = files_in_states({5, 5});
  status.file_entry("f1").error = "older";
  status.current_message = &status.messages.emplace_back();
  status.current_file = &status.file_entry("current");
  status.current_rule = &rule;
  for (int level = 1; level <= 5; ++level) status.record_error(level, "ignored");
  EXPECT_EQ(status.revision, 0u);

  status.result = status_download;
  status.record_error(0, "first");
  status.result = status_install;
  status.record_error(0, "second");
  EXPECT_EQ(status.messages.front().text, "first");
  EXPECT_EQ(status.messages.front().state, status_download);
  EXPECT_EQ(status.file_entry("current").error + status.file_entry("f0").error + status.file_entry("f1").error,
            "firstfirstolder");
  EXPECT_EQ(status.revision, 2u);
  EXPECT_NE(read_file(status_path()).find(">first</message>"), std::string::npos);
}

TEST_F(StatusTest, BeginInstallNeedsSomethingDownloadedInTheRuleAndEndInstallFinishesIt) {
  // spoil: done to the last file
  const struct { std::vector<int> states; void (*spoil)(file_status_t&); bool expected; } rows[] = {
      {{1, 6}, nullptr, false}, {{1, 4, 6}, nullptr, true}, {{5}, nullptr, true}, {{4, 3}, nullptr, false},
      {{4, 4}, [](file_status_t& f) { f.skipped = true; }, false},
      {{4, 4}, [](file_status_t& f) { f.error = "x"; }, false},
  };
  for (const auto& row : rows) {
    status.reset();
    file_rule_t rule = files_in_states(row.states);
    if (row.spoil) row.spoil(status.files.back());
    EXPECT_EQ(status.begin_install(rule), row.expected) << ::testing::PrintToString(row.states);
    EXPECT_EQ(status.files.front().state == file_install, row.expected);
    EXPECT_EQ(status.revision, row.expected ? 1u : 0u);
  }
  status.end_install(files_in_states({5, 5}));
  EXPECT_EQ(status.revision, 1u);
  for (const auto& f : status.files) EXPECT_TRUE(f.state == file_installed && f.installed_time.rfind("20", 0) == 0);
  // A rule without downloads installs an out-of-date file that needs none, and no other.
  file_rule_t rule;
  rule.file_name = "setup";
  for (int spoiled = 0; spoiled < 5; ++spoiled) {
    status.reset();
    file_status_t& f = status.file_entry("setup");
    f.available = spoiled != 1;
    f.skip_downloading = spoiled != 2;
    f.skipped = spoiled == 3;
    f.state = spoiled == 4 ? file_downloaded : file_outofdate;
    EXPECT_EQ(status.begin_install(rule), spoiled == 0) << spoiled;
  }
}

// The start is saved as it stands, and the outcome with the directory synced
// too, so that it outlasts a power loss.
TEST_F(StatusTest, RunStartsWithOneEmptyMessageAndEndsDerivedDurableAndLogged) {
  status.result = status_uptodate;
  status.messages.push_back({"", "old run", 4});
  status.begin_run(Command::install, "42");
  EXPECT_EQ(status.messages.size(), 1u);
  const std::string saved = read_file(status_path());
  EXPECT_NE(saved.find("result=\"prepare\""), std::string::npos) << saved;
  EXPECT_NE(saved.find("cmd=\"install\" cmdid=\"42\""), std::string::npos) << saved;
  files_in_states({6});
  const uint64_t syncs = platform::syncs_done();
  status.end_run(Command::install);
  EXPECT_EQ(platform::syncs_done() - syncs, 2u);
  EXPECT_EQ(status.result, status_installed);
  EXPECT_EQ(log_text(log_id_course),
            "367 start processing command: install (42);367 done command: install, result: installed;");
}

TEST_F(StatusTest, ReportTellsTheLogAndOnlyErrorsTheStatus) {
  for (int level : {0, 1, 5}) report(level, "t");
  status.current_file = &status.file_entry("a");
  status.current_file->state = file_downloaded;
  report_progress("p");
  EXPECT_EQ(log_text(), "365 t;366 t;367 install t;367 downloaded p;");
  EXPECT_EQ(status.revision, 1u);
}

class StatusQueryTest : public StatusTest {
 protected:
  void SetUp() override { StatusTest::SetUp(); set_module_state(module_idle); }
  // "state|message" as get_status leaves them; "-" where it did not write.
  static std::string query(bool force) {
    std::string state = "-", message = "-";
    get_status(state, message, force);
    return state + "|" + message;
  }
};

// Only the groups of the mapping, each word once; an error tells the first
// message with a text, and a failure goes in front of them.
TEST_F(StatusQueryTest, MapsTheResultToTheDaemonsWords) {
  const std::pair<int, const char*> rows[] = {
      {2, "update_state=download|-"}, {5, "update_state=outofdate|-"}, {7, "update_state=install|-"},
      {9, "update_state=error|update_msg=update status undefined"},
      {4, "update_state=error|update_msg=Download error: one"}};
  status.messages = {{"", "", 0}, {"s1", "Download error: one", 2}, {"s2", "Download error: two", 2}};
  for (const auto& [result, expected] : rows) {
    status.result = static_cast<status_code_t>(result);
    EXPECT_EQ(query(true), expected) << "result " << result;
  }
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.set_failure("Process was not correctly terminated");
  EXPECT_EQ(query(true), "update_state=error|update_msg=Process was not correctly terminated");
  EXPECT_EQ(status.revision, 0u);  // a failure is not saved
}

TEST_F(StatusQueryTest, TellsEachMomentOnceUnlessForcedAndNothingWhenStopped) {
  status.result = status_uptodate;
  EXPECT_EQ(query(false), "update_state=uptodate|-");
  EXPECT_EQ(query(false), "-|-");
  EXPECT_EQ(query(true), "update_state=uptodate|-");
  // A run's start and end are news again.
  status.begin_run(Command::check, "");
  EXPECT_EQ(query(false), "update_state=download|-");
  status.end_run(Command::check);
  EXPECT_EQ(query(false), "update_state=uptodate|-");

  set_module_state(module_stopped);
  EXPECT_EQ(query(true), "-|-");
  std::string text = "s";  // the text answers in every state
  get_status_xml(text);
  EXPECT_EQ(text.rfind("s<update-status result=\"uptodate\"", 0), 0u);
}

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
  // on_disk: the version record, or none; notice: the "update state was" line, with the download deleted
  const struct { int32_t state; const char* on_disk; int32_t expected_state; bool notice; } rows[] = {
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
    EXPECT_EQ(logs.all("[" + name + "] update state was: " + file_state_text(row.state) + ", current version: " +
                       (row.on_disk ? row.on_disk : "") + ", update version: 2.0").size(), row.notice) << label;
  }
}

TEST_F(StatusWrapup, LogFilesWeighsEachFilesSummary) {
  add_file("a", 6, "2").installed_time = "t";
  add_file("b", 2, "2").skipped = true;
  add_file("c", 2, "2").available = false;
  file_status_t& d = add_file("d", 3, "2");
  d.current_version = "1", d.error = "e";
  status.log_files();
  EXPECT_EQ(log_text(), "367 a state: installed, update version: 2, installed_time: t;"
                        "366 [b] state: skipped, because of conditions specified in update.ini, was state: outofdate, "
                        "update version: 2;366 [c] state: skipped, because corresponding update.ini is unavailable, "
                        "was state: outofdate, update version: 2;365 [d] state: download, current version: 1, update "
                        "version: 2, error: e;");
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
