// Resume, rollback and refused ranges, through nginx and the fault server.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "fixtures/fault_server.h"
#include "fixtures/nginx_server.h"
#include "transfer/download.h"
#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

constexpr size_t source_size = 3000;

class DownloadResume : public transfer_test_t {
 protected:
  std::string source = random_bytes(source_size, 7);
  std::string target = dir.path("f.bin.download.2");
};

class DownloadResumeNginx : public DownloadResume {
 protected:
  void SetUp() override {
    DownloadResume::SetUp();
    std::string error;
    ASSERT_TRUE(nginx.start(error)) << error;
    ASSERT_TRUE(nginx.put_file("f.bin", source));
  }
  fixtures::nginx_server_t nginx;
};

class DownloadResumeFaults : public DownloadResume {
 protected:
  void SetUp() override {
    DownloadResume::SetUp();
    write_file(root.path("f.bin"), source);
    std::string error;
    ASSERT_TRUE(server.start(root.path(), error)) << error;
  }
  // A partial file whose last `damaged` bytes are not the source's, as a
  // broken connection may leave it.
  void write_partial(size_t size, size_t damaged) {
    write_file(target, source.substr(0, size - damaged) + std::string(damaged, 'x'));
  }
  fixtures::scratch_dir_t root;
  fixtures::fault_server_t server;
};

TEST_F(DownloadResumeFaults, CutTransferResumesFromSizeOnDisk) {
  ASSERT_TRUE(server.cut_after("/f.bin", 1200));
  file_status_t& entry = make_current_file("f.bin");
  params_t params = quick_params();
  params.download_retry = 1;

  ASSERT_TRUE(download_file(handle, server.url("/f.bin"), target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][bytes=1200- 206]");
  const std::string prefix = "Download begin: " + server.url("/f.bin") + " -> " + target;
  EXPECT_EQ(texts(log, log_id_course, "Download begin"),
            (std::vector<std::string>{prefix + ", offset: 0, retry: 0/1", prefix + ", offset: 1200, retry: 1/1"}));
  EXPECT_EQ(texts(log, log_id_course, "Download completed"),
            std::vector<std::string>{"Download completed: " + server.url("/f.bin") + " -> " + target});
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.download_offset, 1200u);
  EXPECT_EQ(entry.download_size, source_size);
  EXPECT_EQ(entry.total_size, source_size);
  EXPECT_TRUE(entry.error.empty());
}

// The tail a rollback gives up is damaged in the partial file, so only a
// transfer that really starts where the row says ends with the source.
TEST_F(DownloadResumeNginx, RollbackDecidesWhereTheTransferStarts) {
  struct row_t {
    size_t partial;  // 0: no file
    uint64_t rollback;
    const char* range;
    const char* truncated;  // expected "File truncated" text after the path
  };
  const row_t rows[] = {
      {1000, 0, "bytes=1000-", nullptr},
      {1000, 100, "bytes=900-", ", size: 1000 -> 900"},
      {1000, 999, "bytes=1-", ", size: 1000 -> 1"},
      {1000, 1000, "", nullptr},
      {1000, 5000, "", nullptr},
      {0, 100, "", nullptr},
  };
  size_t served = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.partial) + " bytes, rollback " + std::to_string(row.rollback));
    fixtures::log_records_t row_log;
    std::filesystem::remove(target);
    if (row.partial != 0) {
      const size_t damaged = std::min<uint64_t>(row.rollback, row.partial);
      write_file(target, source.substr(0, row.partial - damaged) + std::string(damaged, 'x'));
    }
    params_t params = quick_params();
    params.download_rollback_size = row.rollback;

    ASSERT_TRUE(download_file(handle, nginx.url("/f.bin"), target, params, true));

    EXPECT_TRUE(read_file(target) == source);
    auto requests = nginx.requests(++served);
    ASSERT_EQ(requests.size(), served);
    EXPECT_EQ(requests.back().range, row.range);
    EXPECT_EQ(requests.back().status, *row.range ? 206 : 200);
    auto truncated = texts(row_log, log_id_course, "File truncated");
    if (row.truncated)
      EXPECT_EQ(truncated, std::vector<std::string>{"File truncated: " + target + row.truncated});
    else
      EXPECT_TRUE(truncated.empty());
  }
}

TEST_F(DownloadResumeFaults, RollbackIsDoneOncePerCall) {
  write_partial(1000, 100);
  ASSERT_TRUE(server.cut_after("/f.bin", 50));
  params_t params = quick_params();
  params.download_rollback_size = 100;
  params.download_retry = 1;

  ASSERT_TRUE(download_file(handle, server.url("/f.bin"), target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[bytes=900- 206][bytes=950- 206]");
  EXPECT_EQ(texts(log, log_id_course, "File truncated").size(), 1u);
  auto begins = texts(log, log_id_course, "Download begin");
  ASSERT_EQ(begins.size(), 2u);
  EXPECT_NE(begins[1].find(", offset: 950, retry: 1/1"), std::string::npos) << begins[1];
}

// A rollback that could not cut the file starts over from byte 0, and is
// tried again at the next attempt.
TEST_F(DownloadResumeFaults, FailedRollbackStartsOverAndIsTriedAgain) {
  write_partial(1000, 100);
  platform::file_faults().fail_truncate = true;
  ASSERT_TRUE(server.cut_after("/f.bin", 500));
  params_t params = quick_params();
  params.download_rollback_size = 100;
  params.download_retry = 1;
  const std::string url = server.url("/f.bin");

  ASSERT_TRUE(download_file(handle, url, target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][- 200]");
  const std::string prefix = "Download error: " + url + " -> can't truncate file: " + target;
  EXPECT_EQ(texts(log, log_id_notice, "Download error"),
            (std::vector<std::string>{prefix + ", size: 1000 -> 900", prefix + ", size: 500 -> 400"}));
}

// A server that ignores the range is asked again for the whole file; that
// restart uses no attempt, and resume stays off for the rest of the call.
TEST_F(DownloadResumeFaults, RefusedRangeRewritesFromZeroWithoutUsingRetry) {
  write_partial(1000, 0);
  ASSERT_TRUE(server.ignore_range("/f.bin"));
  ASSERT_TRUE(server.cut_after("/f.bin", 500));
  params_t params = quick_params();
  params.download_retry = 1;
  const std::string url = server.url("/f.bin");

  ASSERT_TRUE(download_file(handle, url, target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[bytes=1000- 200][- 200][- 200]");
  EXPECT_EQ(texts(log, log_id_notice, "Download resume failed"),
            std::vector<std::string>{"Download resume failed: " + url +
                                     " -> Requested range was not delivered by the server : HTTP server doesn't "
                                     "seem to support byte ranges. Cannot resume."});
  const std::string prefix = "Download begin: " + url + " -> " + target;
  EXPECT_EQ(texts(log, log_id_course, "Download begin"),
            (std::vector<std::string>{prefix + ", offset: 1000, retry: 0/1", prefix + ", offset: 0, retry: 0/1",
                                      prefix + ", offset: 0, retry: 1/1"}));
}

// A partial file that is already complete asks for a range at its end, which
// nginx answers with 416; libcurl reports that as an HTTP error (22), not as a
// refused resume, so every attempt fails the same way and the file is kept.
TEST_F(DownloadResumeNginx, CompleteFileGets416AndStaysWhole) {
  write_file(target, source);
  file_status_t& entry = make_current_file("f.bin");
  params_t params = quick_params();
  params.download_retry = 1;
  const std::string url = nginx.url("/f.bin");

  EXPECT_FALSE(download_file(handle, url, target, params, true));

  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(nginx.requests(2)), "[bytes=3000- 416][bytes=3000- 416]");
  EXPECT_TRUE(texts(log, log_id_notice, "Download resume failed").empty());
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.error, "Download error: " + url + " -> The requested URL returned error: 416");
}

}  // namespace
}  // namespace update::transfer_test
