#include <gtest/gtest.h>

#include "description/inivars.h"
#include "description/loader.h"
#include "description/update_ini.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "planning/hash_cache.h"
#include "platform/local_params.h"
#include "status/status.h"

namespace {

using update::update_ini_t;

class LoadUpdateIni : public ::testing::Test {
 protected:
  void SetUp() override { update::reset_module_for_tests(); }
  void TearDown() override { update::status.reset(); }

  // Loads text as the saved description into a fresh record, with an empty
  // current message to receive the report.
  bool load(const std::string& text, int mode, const char* name = "corvid_update.ini") {
    update::status.reset();
    update::status.save_enabled = false;
    update::status.select_message("http://source/");
    if (!text.empty()) dir_.write(name, text);
    ini_ = update_ini_t{};
    return update::load_update_ini(ini_, vars_, hashes_, dir_.path(), name, mode);
  }
  static std::string reported() { return update::status.current_message->text; }

  const std::string head_ = "[" + update::product_section_name() + "]\n";
  fixtures::scratch_dir_t dir_;
  update_ini_t ini_;
  update::inivars_t vars_;
  update::hash_cache_t hashes_;
};

TEST_F(LoadUpdateIni, FailuresEndWithTheirReport) {
  const std::string no_version = "Parse 'update.ini' error: parameter not found: 'version', in section: [" +
                                 update::product_section_name() + "]";
  const std::pair<std::string, std::string> rows[] = {
      {head_ + "version=1\nexec=x\n\nbroken line\n", "Parse 'update.ini' error: Bad syntax at line 5"},
      {head_ + "message=hello\n", no_version},
      {"[elsewhere]\nversion=1\n", no_version},
      {head_ + "version.1=2\n", "Parse 'update.ini' error: parameter not found: 'exec.1', in section: [" +
                                    update::product_section_name() + "]"},
      {head_ + "version=1\nfile=a,a\nhash=1,2\nexec=x\n", "duplicated file name: a"},
  };
  for (const auto& [text, message] : rows) {
    EXPECT_FALSE(load(text, 0)) << text;
    EXPECT_EQ(reported(), message) << text;
  }
  EXPECT_FALSE(load("", 1, "absent.ini"));
  EXPECT_EQ(reported(), "");  // start-up does not report a missing file
  EXPECT_FALSE(load("", 0, "absent.ini"));
  EXPECT_EQ(reported(), "Can't open file for reading: " + dir_.path("absent.ini"));
}

TEST_F(LoadUpdateIni, RunReadsSettingsAndStartUpOnlyTheBareRule) {
  const std::string text = head_ + "version=3.1\nexec=x\nversion.1=4\nexec.1=y\nconnect_timeout=7\n";
  ASSERT_TRUE(load(text, 0));
  EXPECT_EQ(ini_.rules.front().update_version, "4");
  EXPECT_EQ(ini_.rules.front().download_path, dir_.path());
  EXPECT_EQ(ini_.connect_timeout, 7);
  ASSERT_TRUE(load(text, 1));
  EXPECT_EQ(ini_.rules.front().update_version, "3.1");
  EXPECT_EQ(ini_.connect_timeout, 300);  // the constructor's value stands
}

// Until its reader lands, a description of file sections is recognised and
// passed over: no rule and no report in a run, false at start-up.
TEST_F(LoadUpdateIni, FileSectionFormatIsPassedOverQuietly) {
  const std::string text =
      head_ + "connect_timeout=9\n[" + update::product_section_name() + ".file=tool.exe]\nversion=2\n";
  EXPECT_TRUE(load(text, 0));
  EXPECT_TRUE(ini_.rules.empty());
  EXPECT_EQ(ini_.connect_timeout, 9);
  EXPECT_EQ(reported(), "");
  EXPECT_FALSE(load(text, 1));
  EXPECT_EQ(reported(), "");
}

}  // namespace
