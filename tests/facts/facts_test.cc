// The version order, the hash comparison and the version records.
#include <gtest/gtest.h>

#include "facts/hash_cache.h"
#include "facts/versions.h"
#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"

namespace update {
namespace {

// Equality compares the text after one mark, so it is no mirror of the order.
TEST(VersionOrder, LessAndEqualByTheTable) {
  const struct { std::string a, b; bool less, equal; } rows[] = {
      {"1.9", "1.10", true, false},  {"1.10", "1.9", false, false},    {"1.2", "1.2.1", true, false},
      {"1.2", "1.2-beta", true, false}, {"1", "1.0", true, false}, {"1.10", "1.010", false, false},
      {"1.99999999999999999999999", "1.100000000000000000000000", true, false},  // beyond 64 bits
      {"1.5a", "1.10", false, false},  // once a component is no plain number, bytes decide
      {"1.a", "1.\xe9", true, false},  // bytes compare unsigned
      {"", "0", true, false},          // unknown is below everything
      {"", "", false, true},           {"!1.2", "1.3", true, false}, {"!1.0", "~1.0", false, true},
      {"!!1", "1", true, false},  // only one mark is dropped
      {"!", "", false, false},    // a mark alone is no empty version
  };
  for (const auto& r : rows) {
    EXPECT_EQ(version_less(r.a, r.b), r.less) << r.a << " < " << r.b;
    EXPECT_EQ(version_equal(r.a, r.b), r.equal) << r.a << " == " << r.b;
  }
}

TEST(HashEqual, ComparesAlignedDecorationsAndDigestsWithoutCase) {
  const struct { std::string a, b; bool expected; } rows[] = {
      {"#GOST3411_256_2012:ABcd", "#GOST3411_256_2012:abCD", true}, {"#T:ab", "$T:ab", true},
      {"#t:ab", "#T:ab", false}, {"xT:ab", "#T:ab", false}, {"abcd", "#T:ABCD", true},
      {"#SHA256:ab", "#GOST3411_256_2012:ab", true},  // decorations of different length are not compared
      {"#T:ab", "#T:abc", false},
  };
  for (const auto& r : rows) EXPECT_EQ(hash_equal(r.a, r.b), r.expected) << r.a << " == " << r.b;
  // Either mark begins a decoration, which ends at its colon.
  for (const auto& [text, length] : {std::pair<const char*, size_t>{"#T:ab", 3}, {"$T:ab", 3}, {"xT:ab", 0}, {"#Tab", 0}, {"", 0}})
    EXPECT_EQ(hash_prefix_length(text), length) << text;
}

TEST(CurrentVersionOf, ReadsTheFirstLineThatIsNoCommentAndWarnsOnlyWhenAsked) {
  fixtures::scratch_dir_t dir;
  const std::pair<std::string, std::string> rows[] = {
      {"\n\n 1.2.3 \n", "1.2.3"}, {"  # note\n3\n4\n", "3"}, {"\r\n\t1.0\r\n", "1.0"}, {"6 # kept\n", "6 # kept"},
      {"\n  \n# only notes\n", ""}, {"2\"/>\n", "2\"/>"}, {"2\x01\n3\n", ""},  // XML cannot carry the control
  };
  fixtures::log_records_t logs;
  for (const auto& [content, expected] : rows) {
    dir.write("tool.exe.version", content);
    std::string version = "old";
    current_version_of(dir.path(), "tool.exe", version, true);
    EXPECT_EQ(version, expected) << content;
  }
  EXPECT_EQ(logs.all("[tool.exe] current version not specified in file: " + dir.path("tool.exe.version")).size(), 1u);
  EXPECT_EQ(logs.all("[tool.exe] current version unusable in file: " + dir.path("tool.exe.version")).size(), 1u);
  std::string version = "old";
  current_version_of(dir.path(), "missing", version, false);
  current_version_of(dir.path(), "missing", version, true);
  EXPECT_EQ(version, "old");  // a missing record changes nothing, and only the asking call warns
  EXPECT_EQ(logs.all("can't open file for reading: " + dir.path("missing.version")).size(), 1u);
}

}  // namespace
}  // namespace update
