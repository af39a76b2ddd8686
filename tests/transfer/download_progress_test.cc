// Progress into the status and the periodic flushes of the stream.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

using DownloadProgress = transfer_test_t;

TEST_F(DownloadProgress, CallbackAbortsOnceStoppedAndTouchesNothing) {
  file_status_t& entry = make_current_file("f.bin");
  entry.download_offset = 100;
  entry.total_size = 777;
  EXPECT_EQ(xfer_progress_cb(nullptr, 0, 50, 0, 0), 0);
  EXPECT_EQ(entry.download_size, 150u);
  EXPECT_EQ(entry.total_size, 777u);  // a server that sends no length leaves it

  set_module_state(module_stopped);
  const uint64_t revision = status.revision;
  EXPECT_EQ(xfer_progress_cb(nullptr, 1000, 500, 0, 0), 1);
  EXPECT_EQ(legacy_progress_cb(nullptr, 1000, 500, 0, 0), 1);
  EXPECT_EQ(entry.download_size, 150u);
  EXPECT_EQ(status.revision, revision);
}

// One byte sits in the stream before each call; the file on disk shows
// whether the call flushed it.
TEST_F(DownloadProgress, FlushesEveryIntervalOfThisAttempt) {
  const std::string path = dir.path("flushed");
  FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::setvbuf(file, nullptr, _IOFBF, 1 << 16);
  flush_context_t context{file, 0, 1000};
  const struct {
    double dlnow;
    bool legacy, flushed;
  } rows[] = {
      {999, false, false},  {1000, false, true},  {1999, false, false},   {2000, false, true},
      {2600, false, false}, {3500, false, true},  {4499.9, true, false},  {4500, true, true},
  };
  int64_t written = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.dlnow);
    std::fputc('x', file);
    const int64_t before = disk_size(path);
    ++written;
    EXPECT_EQ(row.legacy ? legacy_progress_cb(&context, 0, row.dlnow, 0, 0)
                         : xfer_progress_cb(&context, 0, static_cast<curl_off_t>(row.dlnow), 0, 0),
              0);
    EXPECT_EQ(disk_size(path), row.flushed ? written : before);
  }
  std::fclose(file);
}

// Pieces of 600 bytes: with download_fsync_size 1000 a part of the file
// reaches the disk during the transfer, and never less than 1000 bytes; with
// 0 everything stays in the stream (larger than the file) until it is closed.
TEST_F(DownloadProgress, FsyncSizeBoundsWhatWaitsInTheStream) {
  ASSERT_TRUE(serve({"trickle&chunk=600&interval_ms=200", "trickle&chunk=600&interval_ms=200"}));
  for (uint64_t fsync_size : {uint64_t{0}, uint64_t{1000}}) {
    SCOPED_TRACE(fsync_size);
    params_t params = quick_params();
    params.download_fsync_size = fsync_size;
    std::atomic<bool> done{false};
    bool ok = false;
    std::thread transfer([&] {
      ok = download_file(handle, server.url(), target, params, false);
      done = true;
    });
    bool partial_seen = false;
    for (int64_t size; !done; std::this_thread::sleep_for(std::chrono::milliseconds(2)))
      if ((size = disk_size(target)) > 0 && size < 3000) {
        partial_seen = true;
        EXPECT_GE(size, 1000) << "flushed before the interval";
      }
    transfer.join();
    EXPECT_TRUE(ok);
    EXPECT_TRUE(read_file(target) == source);
    EXPECT_EQ(partial_seen, fsync_size != 0);
  }
}

}  // namespace
}  // namespace update::transfer_test
