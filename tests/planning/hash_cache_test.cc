#include "planning/hash_cache.h"

#include <gtest/gtest.h>

#include "fixtures/scratch_dir.h"
#include "platform/hash_file.h"

namespace {

using update::hash_cache_t;
using update::string_list_t;

const std::string gost = "#GOST3411_256_2012:";

TEST(HashCache, DeclareAddsOnePlaceholderPerTypeAndFile) {
  hash_cache_t cache;
  cache.store("a", "#T:1");
  cache.declare("a");
  cache.declare("a");
  cache.declare("#T:a");  // a known value of the type is enough
  cache.declare(std::string_view("c\0tail", 6));
  EXPECT_EQ(cache.entries["a"], (string_list_t{"#T:1", gost}));
  EXPECT_EQ(cache.entries["c"], (string_list_t{gost}));
  EXPECT_EQ(cache.entries.size(), 2u);
}

// A hash with a value never finds an earlier one, since the search text is
// longer than the decoration it is compared with: only a placeholder is
// overwritten.
TEST(HashCache, StoreAppendsValuesAndOverwritesOnlyPlaceholders) {
  hash_cache_t cache;
  cache.store("a", "#T:1");
  cache.store("a", "#T:2");
  cache.store("a", "#T:2");
  cache.store("b", "#T:9");
  cache.store("b", "#T:");
  cache.store("a", "abcd");
  cache.store("a", "#abc");  // no colon: no decoration
  cache.store("a", "abc:def");
  cache.store("", "#T:1");
  EXPECT_EQ(cache.entries["a"], (string_list_t{"#T:1", "#T:2", "#T:2"}));
  EXPECT_EQ(cache.entries["b"], (string_list_t{"#T:"}));
  EXPECT_EQ(cache.entries.size(), 2u);
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

TEST(HashCache, CarryOverMovesOldValuesIntoPlaceholdersOfCommonFiles) {
  hash_cache_t old_map, fresh;
  old_map.store("a", "#T:1");
  old_map.store("a", "#T:2");
  old_map.store("dropped", "#T:7");
  fresh.declare("#T:a");
  fresh.declare("#U:a");
  fresh.declare("#T:new");
  hash_cache_t::carry_over(fresh, old_map);
  EXPECT_EQ(fresh.entries["a"], (string_list_t{"#T:1", "#U:"}));
  EXPECT_EQ(fresh.entries["new"], (string_list_t{"#T:"}));
  EXPECT_TRUE(old_map.entries["a"].empty());
  EXPECT_EQ(old_map.entries["dropped"], (string_list_t{"#T:7"}));  // tells what the update withdrew
}

}  // namespace
