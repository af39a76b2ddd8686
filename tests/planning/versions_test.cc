#include "planning/versions.h"

#include <gtest/gtest.h>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"

namespace {

struct pair_row_t {
  std::string a, b;
  bool expected;
};

// Equality compares the text after one mark, so it is no mirror of the order.
TEST(VersionOrder, LessAndEqualByTheTable) {
  const struct {
    std::string a, b;
    bool less, equal;
  } rows[] = {
      {"1.9", "1.10", true, false},
      {"1.10", "1.9", false, false},
      {"1.2", "1.2.1", true, false},
      {"1.2a", "1.2b", true, false},
      {"1.2", "1.2-beta", true, false},
      {"1", "1.0", true, false},
      {"1.0", "1", false, false},
      {"1.10", "1.010", false, false},
      {"1.99999999999999999999999", "1.100000000000000000000000", true, false},  // beyond 64 bits
      {"1.5a", "1.10", false, false},  // once a component is no plain number, bytes decide
      {"1.10", "1.5a", true, false},
      {"1.a", "1.\xe9", true, false},  // bytes compare unsigned
      {"1.0a", "1.0A", false, false},
      {"", "0", true, false},  // unknown is below everything
      {"", "", false, true},
      {"!1.2", "1.3", true, false},
      {"1.3", "~1.2", false, false},
      {"!1.0", "~1.0", false, true},
      {"!!1", "1", true, false},  // only one mark is dropped
  };
  for (const auto& r : rows) {
    EXPECT_EQ(update::version_less(r.a, r.b), r.less) << r.a << " < " << r.b;
    EXPECT_EQ(update::version_equal(r.a, r.b), r.equal) << r.a << " == " << r.b;
  }
}

TEST(HashEqual, ComparesAlignedDecorationsAndDigestsWithoutCase) {
  const pair_row_t rows[] = {
      {"#GOST3411_256_2012:ABcd", "#GOST3411_256_2012:abCD", true},
      {"#T:ab", "$T:ab", true},
      {"#T:ab", "#U:ab", false},
      {"#t:ab", "#T:ab", false},
      {"xT:ab", "#T:ab", false},
      {"abcd", "#T:ABCD", true},
      {"#SHA256:ab", "#GOST3411_256_2012:ab", true},  // decorations of different length are not compared
      {"#T:ab", "#T:abc", false},
      {"a:b:c", "a:B:C", true},
  };
  for (const auto& r : rows) EXPECT_EQ(update::hash_equal(r.a, r.b), r.expected) << r.a << " == " << r.b;
}

TEST(CurrentVersionOf, ReadsTheFirstNonEmptyLineThatIsNoComment) {
  fixtures::scratch_dir_t dir;
  const std::pair<std::string, std::string> rows[] = {
      {"\n\n 1.2.3 \n", "1.2.3"}, {"# note\n2.0\n", "2.0"}, {"  # note\n3\n4\n", "3"}, {"\r\n\t1.0\r\n", "1.0"},
      {"5.0", "5.0"},           {"6 # kept\n", "6 # kept"}, {"\n  \n# only notes\n", ""},
  };
  for (const auto& [content, expected] : rows) {
    dir.write("tool.exe.version", content);
    std::string version = "old";
    update::current_version_of(dir.path(), "tool.exe", version, false);
    EXPECT_EQ(version, expected) << content;
  }
}

TEST(CurrentVersionOf, WarnsOnlyWhenAskedAndKeepsTheVersionOfAMissingFile) {
  fixtures::scratch_dir_t dir;
  fixtures::log_records_t logs;
  const std::string blank = dir.write("blank.version", "\n# note\n");
  std::string version = "old";
  update::current_version_of(dir.path(), "missing", version, false);
  EXPECT_EQ(version, "old");
  EXPECT_TRUE(logs.all().empty());
  update::current_version_of(dir.path(), "blank", version, true);
  update::current_version_of(dir.path(), "missing", version, true);
  auto records = logs.all();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].id, 366);
  EXPECT_EQ(records[0].attrs[0], "[blank] current version not specified in file: " + blank);
  EXPECT_EQ(records[1].attrs[0],
            "[missing] current version undefined, can't open file for reading: " + dir.path("missing.version"));
}

}  // namespace
