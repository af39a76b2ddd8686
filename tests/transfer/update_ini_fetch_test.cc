// Fetching a source's description, and adding a file name to a URI.
#include <gtest/gtest.h>

#include "transfer/transfer_support.h"
#include "transfer/update_ini_fetch.h"

namespace update::transfer_test {
namespace {

TEST(UriJoin, KeepsTheQueryAtTheEnd) {
  struct row_t {
    const char* base;
    const char* name;
    const char* joined;
  };
  const row_t rows[] = {
      {"a/b/", "update.ini", "a/b/update.ini"},
      {"a/b", "update.ini", "a/b/update.ini"},
      {"a/b?k=1", "update.ini", "a/b/update.ini?k=1"},
      {"a/b/?k=1", "update.ini", "a/b/update.ini?k=1"},
      {"a/b?k=1", "f.bin?x=2", "a/b/f.bin?x=2"},
      {"a/b?k=1", "/f.bin", "a/b/f.bin?k=1"},
      {"a/b?x?y", "f", "a/b?x/f?y"},  // the last "?" counts
      {"a/b", "/f", "a/b//f"},
      {"", "update.ini", "/update.ini"},
      {"?k=1", "f", "/f?k=1"},
      {"http://h:80/dir/", "update.ini", "http://h:80/dir/update.ini"},
  };
  for (const auto& row : rows) {
    std::string base = row.base;
    EXPECT_EQ(&uri_join(base, row.name), &base);
    EXPECT_EQ(base, row.joined) << row.base << " + " << row.name;
  }
}

class FetchUpdateIni : public transfer_test_t {
 protected:
  std::string local = dir.path("corvid_update.ini");
};

TEST_F(FetchUpdateIni, EmptyUriFailsWithoutTouchingFileOrNetwork) {
  write_file(local, "earlier");
  status.select_message("");

  EXPECT_FALSE(fetch_update_ini("", dir.path(), "corvid_update.ini", nullptr, params_t{}));

  EXPECT_EQ(read_file(local), "earlier");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.messages.back().text,
            "Download error: URI not specified (should be obtained from the Policy Managment Server)");
}

// Each source is fetched whole over the one local copy, and a failing source
// leaves its error in its own message.
TEST_F(FetchUpdateIni, EachSourceOverwritesTheCopyAndKeepsItsOwnError) {
  ASSERT_TRUE(start_nginx());
  const std::string first(5000, 'a');
  ASSERT_TRUE(nginx.put_file("one/update.ini", first));
  ASSERT_TRUE(nginx.put_file("two/update.ini", "[short]\n"));
  struct source_t {
    std::string uri;
    bool fetched;
    std::string copy;
  };
  const source_t sources[] = {
      {nginx.url("/one?k=1"), true, first},
      {nginx.url("/missing/"), false, ""},  // the error page is not written
      {nginx.url("/two/"), true, "[short]\n"},
  };
  for (const auto& source : sources) {
    status.select_message(source.uri);
    EXPECT_EQ(fetch_update_ini(source.uri, dir.path(), "corvid_update.ini", handle, params_t{}), source.fetched);
    EXPECT_TRUE(read_file(local) == source.copy) << source.uri;
  }

  std::string asked;
  for (const auto& r : nginx.requests(3)) asked += "[" + r.target + " " + r.range + "]";
  EXPECT_EQ(asked, "[/one/update.ini?k=1 ][/missing/update.ini ][/two/update.ini ]");
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  ASSERT_EQ(status.messages.size(), 3u);
  auto message = status.messages.begin();
  EXPECT_EQ(message->text, "");
  EXPECT_EQ((++message)->text,
            "Download error: " + nginx.url("/missing/update.ini") + " -> The requested URL returned error: 404");
  EXPECT_EQ((++message)->text, "");
}

}  // namespace
}  // namespace update::transfer_test
