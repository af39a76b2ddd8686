// Fetching a source's description, and adding a file name to a URI.
#include <gtest/gtest.h>

#include "transfer/transfer_support.h"
#include "transfer/update_ini_fetch.h"

namespace update::transfer_test {
namespace {

TEST(UriJoin, KeepsTheQueryAtTheEnd) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"a/b/", "update.ini", "a/b/update.ini"},   {"a/b", "update.ini", "a/b/update.ini"},
      {"a/b?k=1", "update.ini", "a/b/update.ini?k=1"}, {"a/b/?k=1", "update.ini", "a/b/update.ini?k=1"},
      {"a/b?k=1", "f.bin?x=2", "a/b/f.bin?x=2"},  {"a/b?k=1", "/f.bin", "a/b/f.bin?k=1"},
      {"a/b?x?y", "f", "a/b?x/f?y"},  // the last "?" counts
      {"a/b", "/f", "a/b//f"},        {"?k=1", "f", "/f?k=1"},
  };
  for (const auto& [base, name, joined] : rows) {
    std::string text = base;
    EXPECT_EQ(&uri_join(text, name), &text);
    EXPECT_EQ(text, joined) << base << " + " << name;
  }
}

using FetchUpdateIni = transfer_test_t;

// Each source is fetched whole over the one local copy, and a failing source
// leaves its error in its own message; no URI touches neither file nor network.
TEST_F(FetchUpdateIni, EachSourceOverwritesTheCopyAndKeepsItsOwnError) {
  ASSERT_TRUE(start_nginx());
  const std::string first(5000, 'a');
  ASSERT_TRUE(nginx.put_file("one/update.ini", first));
  ASSERT_TRUE(nginx.put_file("two/update.ini", "[short]\n"));
  const std::string no_uri =
      "Download error: URI not specified (should be obtained from the Policy Managment Server)";
  const std::tuple<std::string, std::string, std::string> sources[] = {
      {nginx.url("/one?k=1"), first, ""},
      {"", first, no_uri},
      {nginx.url("/missing/"), "", "Download error: " + nginx.url("/missing/update.ini") +
                                       " -> The requested URL returned error: 404"},  // the error page is not kept
      {nginx.url("/two/"), "[short]\n", ""},
  };
  for (const auto& [uri, copy, error] : sources) {
    status.select_message(uri);
    EXPECT_EQ(fetch_update_ini(uri, dir_.path(), "corvid_update.ini", handle, params_t{}), error.empty());
    EXPECT_TRUE(read_file(dir_.path("corvid_update.ini")) == copy) << uri;
    EXPECT_EQ(reported(), error);
  }
  std::string asked;
  for (const auto& r : nginx.requests(3)) asked += "[" + r.target + " " + r.range + "]";
  EXPECT_EQ(asked, "[/one/update.ini?k=1 ][/missing/update.ini ][/two/update.ini ]");
}

}  // namespace
}  // namespace update::transfer_test
