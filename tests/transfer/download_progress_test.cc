// Progress into the status and the periodic flushes of the stream.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "fixtures/fault_server.h"
#include "fixtures/nginx_server.h"
#include "transfer/download.h"
#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

constexpr size_t source_size = 3000;

class DownloadProgress : public transfer_test_t {
 protected:
  std::string source = random_bytes(source_size, 11);
  std::string target = dir.path("f.bin.download.2");
};

TEST_F(DownloadProgress, MovesCurrentFileCountersWithoutSaving) {
  fixtures::nginx_server_t nginx;
  std::string error;
  ASSERT_TRUE(nginx.start(error)) << error;
  ASSERT_TRUE(nginx.put_file("f.bin", source));
  write_file(target, source.substr(0, 1000));
  file_status_t& entry = make_current_file("f.bin");
  uint64_t revision_before;
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.xml = "<cached/>";
    revision_before = status.revision;
  }

  ASSERT_TRUE(download_file(handle, nginx.url("/f.bin"), target, quick_params(), true));

  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.download_offset, 1000u);
  EXPECT_EQ(entry.download_size, source_size);
  EXPECT_EQ(entry.total_size, source_size);
  EXPECT_GT(status.revision, revision_before);
  EXPECT_TRUE(status.xml.empty());
}

TEST_F(DownloadProgress, ServerWithoutLengthLeavesTotalSize) {
  fixtures::scratch_dir_t root;
  write_file(root.path("f.bin"), source);
  fixtures::fault_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(root.path(), error)) << error;
  ASSERT_TRUE(server.no_length("/f.bin"));
  file_status_t& entry = make_current_file("f.bin");
  entry.total_size = 777;

  ASSERT_TRUE(download_file(handle, server.url("/f.bin"), target, quick_params(), false));

  EXPECT_TRUE(read_file(target) == source);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.download_size, source_size);
  EXPECT_EQ(entry.total_size, 777u);
}

TEST_F(DownloadProgress, CallbackAbortsOnceStoppedAndTouchesNothing) {
  file_status_t& entry = make_current_file("f.bin");
  entry.download_offset = 100;
  EXPECT_EQ(xfer_progress_cb(nullptr, 0, 50, 0, 0), 0);
  EXPECT_EQ(entry.download_size, 150u);
  EXPECT_EQ(entry.total_size, 0u);  // no size known yet

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
  struct row_t {
    double dlnow;
    bool legacy;
    bool flushed;
  };
  const row_t rows[] = {
      {999, false, false},   {1000, false, true},  {1999, false, false}, {2000, false, true},
      {2600, false, false},  {3500, false, true},  {4499.9, true, false}, {4500, true, true},
  };
  int64_t written = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.dlnow);
    std::fputc('x', file);
    ++written;
    const int64_t before = disk_size(path);
    if (row.legacy)
      EXPECT_EQ(legacy_progress_cb(&context, 0, row.dlnow, 0, 0), 0);
    else
      EXPECT_EQ(xfer_progress_cb(&context, 0, static_cast<curl_off_t>(row.dlnow), 0, 0), 0);
    EXPECT_EQ(disk_size(path), row.flushed ? written : before);
  }
  std::fputc('x', file);
  EXPECT_EQ(xfer_progress_cb(nullptr, 0, 1000000, 0, 0), 0);
  EXPECT_EQ(disk_size(path), written);
  std::fclose(file);
}

// Three pieces of 600 bytes, then a pause: with download_fsync_size 1000 the
// first 1200 bytes reach the file during the pause; with 0 everything stays
// in the stream (smaller than its buffer) until the file is closed.
TEST_F(DownloadProgress, FsyncSizeBoundsWhatWaitsInTheStream) {
  fixtures::scratch_dir_t root;
  write_file(root.path("f.bin"), source);
  fixtures::fault_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(root.path(), error)) << error;
  for (uint64_t fsync_size : {uint64_t{0}, uint64_t{1000}}) {
    SCOPED_TRACE(fsync_size);
    ASSERT_TRUE(server.trickle("/f.bin", 600, 50, 3, 1500));
    params_t params = quick_params();
    params.download_fsync_size = fsync_size;
    std::atomic<bool> done{false};
    bool ok = false;
    std::thread transfer([&] {
      ok = download_file(handle, server.url("/f.bin"), target, params, false);
      done = true;
    });
    bool partial_seen = false;
    while (!done) {
      const int64_t size = disk_size(target);
      if (size > 0 && size < static_cast<int64_t>(source_size)) {
        partial_seen = true;
        EXPECT_GE(size, 1000) << "flushed before the interval";
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    transfer.join();
    EXPECT_TRUE(ok);
    EXPECT_TRUE(read_file(target) == source);
    EXPECT_EQ(partial_seen, fsync_size != 0);
  }
}

}  // namespace
}  // namespace update::transfer_test
