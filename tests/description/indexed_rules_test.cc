#include "description/indexed_rules.h"

#include <gtest/gtest.h>

#include <sstream>

#include "description/loader.h"
#include "frame/module.h"
#include "platform/local_params.h"
#include "status/status.h"
#include "support/ini_file.h"
#include "transfer/update_ini_fetch.h"

namespace {

using update::update_ini_t;

class IndexedRules : public ::testing::Test {
 protected:
  void SetUp() override {
    update::reset_module_for_tests();
    verify_before_ = LPARAMS::server::verify_downloads();
    LPARAMS::server::set_verify_downloads(true);
  }
  void TearDown() override {
    LPARAMS::server::set_verify_downloads(verify_before_);
    update::status.reset();
  }

  // An empty current message for each case, since the first error stands.
  static void fresh_message() {
    update::status.reset();
    update::status.save_enabled = false;
    update::status.select_message("http://source/");
  }
  static std::string reported() { return update::status.current_message->text; }

  static bool read(const std::string& body, int mode, update_ini_t& ini) {
    fresh_message();
    std::istringstream in("[" + update::product_section_name() + "]\n" + body);
    CIniFile ini_file(in);
    return update::read_indexed_rules(ini_file, update::product_section_name(), ini, "/upd/", mode);
  }

  bool verify_before_ = true;
};

// The bare rule is a fallback: any numbered rule replaces it, mode 1 reads it alone.
TEST_F(IndexedRules, BareRuleStandsOnlyWithoutNumberedOnes) {
  const std::string bare = "version=1\nfile=a\nhash=h\nexec=x\n";
  const std::string first = "version.1=2\nfile.1=p/b,c\nhash.1=h1,h2\nexec.1=y\n";
  const struct {
    std::string body;
    int mode;
    bool result;
    std::string rules;  // display names, main rules marked with "*"
  } rows[] = {
      {bare, 0, true, "*1;"},
      {bare, 1, true, "*1;"},
      {bare + first, 0, true, "2 (p/b,c);"},
      {bare + first, 1, true, "*1;"},
      {first, 0, true, "2 (p/b,c);"},
      {first, 1, false, ""},
      {first + "version.2=3\nexec.2=z\n", 0, true, "2 (p/b,c);3 ();"},
      {first + "version.3=4\nexec.3=z\n", 0, true, "2 (p/b,c);"},  // a gap ends the series
      {"file=a\nhash=h\n", 0, true, ""},
      {"file=a\nhash=h\n", 1, false, ""},
  };
  for (const auto& row : rows) {
    update_ini_t ini;
    EXPECT_EQ(read(row.body, row.mode, ini), row.result) << row.body;
    std::string rules;
    for (const auto& r : ini.rules) {
      rules += (r.is_main ? "*" : "") + r.display_name + ";";
      EXPECT_TRUE(r.owner == &ini && r.legacy_exec);
    }
    EXPECT_EQ(rules, row.rules) << row.body << " mode " << row.mode;
  }
}

TEST_F(IndexedRules, ReadsTheFieldsOfARule) {
  update_ini_t ini;
  ini.uri = "http://host/base";
  ASSERT_TRUE(read("version.1=2.0\nfile.1=bin/a.exe,\t b.dll\nhash.1=#T:1 ,#T:2\nfilesize.1=10,20\n"
                   "exec_sys.1=install.sh\nexec_user.1=notify\nexec_wait.1=1\nexec_user_wait.1=0\n",
                   0, ini));
  const auto& rule = ini.rules.front();
  EXPECT_EQ(rule.download_path, "/upd/");  // the load's directory by default
  EXPECT_EQ(rule.exec_sys + "|" + rule.exec_user + "|" + rule.exec_sys_wait + "|" + rule.exec_user_wait,
            "install.sh|notify|1|0");
  ASSERT_EQ(rule.entries.size(), 2u);
  const auto& a = rule.entries.front();
  std::string expected_uri = ini.uri;
  update::uri_join(expected_uri, "bin/a.exe");  // directories count on the server...
  EXPECT_EQ(a.uri, expected_uri);
  EXPECT_EQ(a.name, "a.exe");
  EXPECT_EQ(a.local_path, "/upd/a.exe");  // ...and not on the disk
  EXPECT_EQ(a.hash, "#T:1 ");  // list items keep blanks behind, lose those in front
  EXPECT_EQ(a.size, 10u);
  EXPECT_EQ(rule.entries.back().name, "b.dll");
  EXPECT_EQ(rule.entries.back().size, 20u);
}

TEST_F(IndexedRules, DownloadPathEndsInExactlyOneSeparator) {
  const std::pair<std::string, std::string> rows[] = {
      {"C:\\dir\\\\/", "C:\\dir/"}, {"/srv/files///", "/srv/files/"}, {"/", "//"},  // only separators: kept
      {"", "/"},                    {"rel", "rel/"},
  };
  for (const auto& [value, expected] : rows) {
    update_ini_t ini;
    ASSERT_TRUE(read("version=1\nexec=x\ndownload_path=" + value + "\n", 0, ini)) << value;
    EXPECT_EQ(ini.rules.front().download_path, expected) << value;
  }
}

TEST_F(IndexedRules, VerificationSwitchRequiresAHashForFiles) {
  const std::string missing_hash =
      "Parse 'update.ini' error: missing required field 'hash'. Turn off local parameter '" +
      LPARAMS::server::verify_downloads_name() + "' to disable downloaded files verification";
  const struct {
    bool verify;
    std::string body, message;
  } rows[] = {
      {true, "version=1\nfile=a\nexec=x\n", missing_hash},
      {true, "version=1\nexec=x\n", ""},  // no file, no hash needed
      {false, "version=1\nfile=a\nexec=x\n", ""},
  };
  for (const auto& row : rows) {
    LPARAMS::server::set_verify_downloads(row.verify);
    update_ini_t ini;
    EXPECT_EQ(read(row.body, 0, ini), row.message.empty()) << row.body;
    EXPECT_EQ(reported(), row.message) << row.body;
  }
}

TEST_F(IndexedRules, FileListMismatchesAreReported) {
  const struct {
    std::string files, hashes, sizes, message;
  } rows[] = {
      {"a,b", "1", "", "files count greater than hashes count: a,b > 1"},
      {"a", "1,2", "", "files count less than hashes count: a < 1,2"},
      {"a", "1, ", "", "files count less than hashes count: a < 1, "},
      {"a,b", "", "10", "files count greater than sizes count: a,b > 10"},
      {"a", "", "10,20", "files count less than sizes count: a < 10,20"},
      {"a,b", "", "10,-1", "bad filesize value: -1"},
      {"a,a", "", "", "duplicated file name: a"},
      {"x/a,y/a", "", "", "duplicated file name: y/a"},
      {"x\\a,a", "", "", "duplicated file name: a"},
      {"a,,b", "", "", "empty file name specified in file list(#2): a,,b"},
      {"a, ", "", "", "empty file name specified in file list(#2): a, "},
      {"a,A", "", "", ""},       // names compare with regard to case
      {"a,", "1,", "5,", ""},    // a final comma adds no item
      {"a,b", ",h2", "", ""},    // an empty hash counts as the first file's
      {"a,b", "h1, ", "", ""},   // blanks after a final comma are an item
      {"", "1,2", "3", ""},      // without files nothing is checked
  };
  for (const auto& row : rows) {
    fresh_message();
    std::list<update::file_entry_t> entries;
    const bool ok = update::read_file_list(row.files, row.hashes, row.sizes, "/d/", "http://h", entries);
    EXPECT_EQ(ok, row.message.empty()) << row.files << " | " << row.hashes << " | " << row.sizes;
    EXPECT_EQ(reported(), row.message) << row.files << " | " << row.hashes << " | " << row.sizes;
  }
}

}  // namespace
