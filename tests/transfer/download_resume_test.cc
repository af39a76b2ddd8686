// Resume, rollback and refused ranges.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

using DownloadResume = transfer_test_t;

// A partial file whose last `damaged` bytes are not the source's, as a broken
// connection may leave it: only a transfer that starts early enough repairs it.
void write_partial(const std::string& path, const std::string& source, size_t size, size_t damaged) {
  write_file(path, source.substr(0, size - damaged) + std::string(damaged, 'x'));
}

// The progress lands in current_file without saving the status.
TEST_F(DownloadResume, CutTransferResumesFromSizeOnDisk) {
  ASSERT_TRUE(serve({"cut&bytes=1200"}));
  file_status_t& entry = make_current_file("f.bin");
  status.xml = "<cached/>";
  const uint64_t revision = status.revision;

  ASSERT_TRUE(download_file(handle, server.url(), target, quick_params(1), true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][bytes=1200- 206]");
  const std::string prefix = "Download begin: " + server.url() + " -> " + target;
  EXPECT_EQ(texts(log_id_course, "Download begin"),
            (std::vector<std::string>{prefix + ", offset: 0, retry: 0/1", prefix + ", offset: 1200, retry: 1/1"}));
  EXPECT_EQ(texts(log_id_course, "Download completed"),
            std::vector<std::string>{"Download completed: " + server.url() + " -> " + target});
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.download_offset, 1200u);
  EXPECT_EQ(entry.download_size, 3000u);
  EXPECT_EQ(entry.total_size, 3000u);
  EXPECT_TRUE(entry.error.empty());
  EXPECT_GT(status.revision, revision);
  EXPECT_TRUE(status.xml.empty());
}

TEST_F(DownloadResume, RollbackDecidesWhereTheTransferStarts) {
  ASSERT_TRUE(start_nginx());
  const struct {
    size_t partial;  // 0: no file
    uint64_t rollback;
    std::string range, truncated;  // the "File truncated" text after the path
  } rows[] = {
      {1000, 0, "bytes=1000-", ""},     {1000, 100, "bytes=900-", ", size: 1000 -> 900"},
      {1000, 999, "bytes=1-", ", size: 1000 -> 1"}, {1000, 1000, "", ""},
      {1000, 5000, "", ""},             {0, 100, "", ""},
  };
  size_t served = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.partial) + " bytes, rollback " + std::to_string(row.rollback));
    fixtures::log_records_t row_log;
    std::filesystem::remove(target);
    if (row.partial != 0) write_partial(target, source, row.partial, std::min<uint64_t>(row.rollback, row.partial));
    params_t params = quick_params();
    params.download_rollback_size = row.rollback;

    ASSERT_TRUE(download_file(handle, nginx.url("/f.bin"), target, params, true));

    EXPECT_TRUE(read_file(target) == source);
    auto requests = nginx.requests(++served);
    ASSERT_EQ(requests.size(), served);
    EXPECT_EQ(requests.back().range, row.range);
    EXPECT_EQ(requests.back().status, row.range.empty() ? 200 : 206);
    EXPECT_EQ(texts(log_id_course, "File truncated", &row_log),
              row.truncated.empty() ? std::vector<std::string>{}
                                    : std::vector<std::string>{"File truncated: " + target + row.truncated});
  }
}

TEST_F(DownloadResume, RollbackIsDoneOncePerCall) {
  write_partial(target, source, 1000, 100);
  ASSERT_TRUE(serve({"cut&bytes=50"}));
  params_t params = quick_params(1);
  params.download_rollback_size = 100;

  ASSERT_TRUE(download_file(handle, server.url(), target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[bytes=900- 206][bytes=950- 206]");
  EXPECT_EQ(texts(log_id_course, "File truncated").size(), 1u);
  auto begins = texts(log_id_course, "Download begin");
  ASSERT_EQ(begins.size(), 2u);
  EXPECT_NE(begins[1].find(", offset: 950, retry: 1/1"), std::string::npos) << begins[1];
}

// A rollback that could not cut the file starts over from byte 0, and is
// tried again at the next attempt.
TEST_F(DownloadResume, FailedRollbackStartsOverAndIsTriedAgain) {
  write_partial(target, source, 1000, 100);
  platform::file_faults().fail_truncate = true;
  ASSERT_TRUE(serve({"cut&bytes=500"}));
  params_t params = quick_params(1);
  params.download_rollback_size = 100;

  ASSERT_TRUE(download_file(handle, server.url(), target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][- 200]");
  const std::string prefix = "Download error: " + server.url() + " -> can't truncate file: " + target;
  EXPECT_EQ(texts(log_id_notice, "Download error"),
            (std::vector<std::string>{prefix + ", size: 1000 -> 900", prefix + ", size: 500 -> 400"}));
}

// A server that ignores the range is asked again for the whole file; that
// restart uses no attempt, and resume stays off for the rest of the call.
TEST_F(DownloadResume, RefusedRangeRewritesFromZeroWithoutUsingRetry) {
  write_partial(target, source, 1000, 0);
  ASSERT_TRUE(serve({"full", "cut&bytes=500"}));
  const std::string url = server.url();

  ASSERT_TRUE(download_file(handle, url, target, quick_params(1), true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[bytes=1000- 200][- 200][- 200]");
  EXPECT_EQ(texts(log_id_notice, "Download resume failed"),
            std::vector<std::string>{"Download resume failed: " + url +
                                     " -> Requested range was not delivered by the server : HTTP server doesn't "
                                     "seem to support byte ranges. Cannot resume."});
  const std::string prefix = "Download begin: " + url + " -> " + target;
  EXPECT_EQ(texts(log_id_course, "Download begin"),
            (std::vector<std::string>{prefix + ", offset: 1000, retry: 0/1", prefix + ", offset: 0, retry: 0/1",
                                      prefix + ", offset: 0, retry: 1/1"}));
}

// An already complete partial file asks for a range at its end, which nginx
// answers with 416; libcurl reports that as an HTTP error, not as a refused
// resume, so every attempt fails the same way and the file is kept.
TEST_F(DownloadResume, CompleteFileGets416AndStaysWhole) {
  ASSERT_TRUE(start_nginx());
  write_file(target, source);
  file_status_t& entry = make_current_file("f.bin");
  const std::string url = nginx.url("/f.bin");

  EXPECT_FALSE(download_file(handle, url, target, quick_params(1), true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(nginx.requests(2)), "[bytes=3000- 416][bytes=3000- 416]");
  EXPECT_TRUE(texts(log_id_notice, "Download resume failed").empty());
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.error, "Download error: " + url + " -> The requested URL returned error: 416");
}

}  // namespace
}  // namespace update::transfer_test
