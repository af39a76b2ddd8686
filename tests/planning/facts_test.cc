// Version and hash facts: the version order, the hash comparison, a file's
// version record, and the map of hashes a run and the status keep.
#include <gtest/gtest.h>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "planning/hash_cache.h"
#include "planning/versions.h"
#include "platform/hash_file.h"

namespace update {
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
      {"1.2", "1.2-beta", true, false},
      {"1", "1.0", true, false},
      {"1.10", "1.010", false, false},
      {"1.99999999999999999999999", "1.100000000000000000000000", true, false},  // beyond 64 bits
      {"1.5a", "1.10", false, false},  // once a component is no plain number, bytes decide
      {"1.a", "1.\xe9", true, false},  // bytes compare unsigned
      {"", "0", true, false},  // unknown is below everything
      {"", "", false, true},
      {"!1.2", "1.3", true, false},
      {"!1.0", "~1.0", false, true},
      {"!!1", "1", true, false},  // only one mark is dropped
  };
  for (const auto& r : rows) {
    EXPECT_EQ(version_less(r.a, r.b), r.less) << r.a << " < " << r.b;
    EXPECT_EQ(version_equal(r.a, r.b), r.equal) << r.a << " == " << r.b;
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
  };
  for (const auto& r : rows) EXPECT_EQ(hash_equal(r.a, r.b), r.expected) << r.a << " == " << r.b;
}

TEST(CurrentVersionOf, ReadsTheFirstLineThatIsNoCommentAndWarnsOnlyWhenAsked) {
  fixtures::scratch_dir_t dir;
  const std::pair<std::string, std::string> rows[] = {
      {"\n\n 1.2.3 \n", "1.2.3"}, {"  # note\n3\n4\n", "3"}, {"\r\n\t1.0\r\n", "1.0"}, {"6 # kept\n", "6 # kept"},
      {"\n  \n# only notes\n", ""},
  };
  for (const auto& [content, expected] : rows) {
    dir.write("tool.exe.version", content);
    std::string version = "old";
    current_version_of(dir.path(), "tool.exe", version, false);
    EXPECT_EQ(version, expected) << content;
  }
  fixtures::log_records_t logs;
  std::string version = "old";
  current_version_of(dir.path(), "missing", version, false);
  EXPECT_TRUE(logs.all().empty() && version == "old");  // a missing record changes nothing
  current_version_of(dir.path(), "missing", version, true);
  ASSERT_EQ(logs.all().size(), 1u);
  EXPECT_EQ(logs.all()[0].attrs[0],
            "[missing] current version undefined, can't open file for reading: " + dir.path("missing.version"));
}

const std::string gost = "#GOST3411_256_2012:";

// declare adds one placeholder per type and file. A stored hash with a value
// never finds an earlier one, since the search text is longer than the
// decoration it is compared with: only a placeholder is overwritten.
TEST(HashCache, DeclareAddsPlaceholdersAndStoreOverwritesOnlyThem) {
  hash_cache_t cache;
  cache.store("a", "#T:1");
  cache.declare("a");
  cache.declare("a");
  cache.declare("#T:a");  // a known value of the type is enough
  cache.declare(std::string_view("c\0tail", 6));
  cache.store("a", "#T:2");
  cache.store("a", "#T:2");
  cache.store("b", "#T:9");
  cache.store("b", "#T:");
  for (const char* undecorated : {"abcd", "#abc", "abc:def"}) cache.store("a", undecorated);
  cache.store("", "#T:1");
  EXPECT_EQ(cache.entries["a"], (string_list_t{"#T:1", gost, "#T:2", "#T:2"}));
  EXPECT_EQ(cache.entries["b"], (string_list_t{"#T:"}));
  EXPECT_EQ(cache.entries["c"], (string_list_t{gost}));
  EXPECT_EQ(cache.entries.size(), 3u);
}

TEST(HashCache, GetCalculatesOncePerTypeAndRetriesAfterAFailure) {
  fixtures::scratch_dir_t dir;
  const std::string path = dir.path("f");
  hash_cache_t cache;
  std::string value;
  EXPECT_FALSE(hash_cache_t::get(cache, path, value));
  ASSERT_EQ(cache.entries.count(path), 1u);  // the entry stays, empty
  EXPECT_TRUE(cache.entries[path].empty());

  dir.write("f", "first");
  std::string expected, expected_sha;
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "", expected));
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "#SHA256:", expected_sha));
  value.clear();
  ASSERT_TRUE(hash_cache_t::get(cache, path, value));
  EXPECT_EQ(value, expected);

  dir.write("f", "changed since");  // the map answers without reading the disk
  value.clear();
  ASSERT_TRUE(hash_cache_t::get(cache, path, value));
  EXPECT_EQ(value, expected);

  dir.write("f", "first");
  value.clear();
  ASSERT_TRUE(hash_cache_t::get(cache, "#SHA256:" + path, value));
  EXPECT_EQ(value, expected_sha);
  EXPECT_EQ(cache.entries[path], (string_list_t{expected, expected_sha}));
  value = "#SHA256:";  // a value passed in wins over the decoration of the path
  ASSERT_TRUE(hash_cache_t::get(cache, gost + path, value));
  EXPECT_EQ(value, expected_sha);
}

}  // namespace
}  // namespace update
