// Failed transfers: HTTP errors and their retries, a target that cannot be
// opened, a stop in the middle, a server too slow to keep.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

using clock_type = std::chrono::steady_clock;
using DownloadFailure = transfer_test_t;

TEST_F(DownloadFailure, HttpErrorUsesEveryRetryAndWritesNothing) {
  ASSERT_TRUE(start_nginx());
  file_status_t& entry = make_current_file("f.bin");
  const std::string url = nginx.url("/missing.bin");

  EXPECT_FALSE(download_file(handle, url, target, quick_params(2), true));

  const std::string prefix = "Download begin: " + url + " -> " + target + ", offset: 0, retry: ";
  EXPECT_EQ(texts(log_id_course, "Download begin"),
            (std::vector<std::string>{prefix + "0/2", prefix + "1/2", prefix + "2/2"}));
  EXPECT_EQ(ranges_of(nginx.requests(3)), "[- 404][- 404][- 404]");
  const std::string failure = "Download error: " + url + " -> The requested URL returned error: 404";
  EXPECT_EQ(texts(log_id_failure, "Download error"), std::vector<std::string>{failure});
  EXPECT_EQ(disk_size(target), 0);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(entry.error, failure);
}

TEST_F(DownloadFailure, UnopenableTargetFailsBeforeAnyAttempt) {
  const std::string url = "http://127.0.0.1:1/f.bin", path = dir.path("no-such-dir/f.bin");
  status.select_message("source");

  EXPECT_FALSE(download_file(handle, url, path, quick_params(2), false));

  EXPECT_TRUE(texts(log_id_course, "Download begin").empty());
  const std::string failure = "Download error: " + url + " -> can't open file for writing: " + path;
  EXPECT_EQ(texts(log_id_failure, "Download error"), std::vector<std::string>{failure});
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  EXPECT_EQ(status.messages.back().text, failure);
}

// The progress callback sees the stop; no further attempt follows although
// attempts are left, and the partial file stays.
TEST_F(DownloadFailure, StopDuringTransferAbortsWithoutFurtherAttempt) {
  ASSERT_TRUE(serve({"trickle&chunk=10&interval_ms=50"}));
  file_status_t& entry = make_current_file("f.bin");
  std::atomic<bool> done{false};
  std::thread stopper([&] {
    for (auto end = clock_type::now() + std::chrono::seconds(20); !done && clock_type::now() < end;) {
      {
        std::lock_guard<std::recursive_mutex> hold(status.lock);
        if (entry.download_size >= 20) break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    set_module_state(module_stopped);
  });

  auto start = clock_type::now();
  EXPECT_FALSE(download_file(handle, server.url(), target, quick_params(3), true));
  done = true;
  stopper.join();

  EXPECT_LT(clock_type::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(texts(log_id_course, "Download begin").size(), 1u);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(texts(log_id_failure, "Download error"),
            std::vector<std::string>{"Download error: " + server.url() + " -> Callback aborted"});
  EXPECT_GE(disk_size(target), 20);
}

TEST_F(DownloadFailure, TricklingServerIsDroppedAfterLowTime) {
  ASSERT_TRUE(serve({"trickle&chunk=1&interval_ms=200"}));
  params_t params = quick_params();
  params.download_lowtime = 1;
  params.download_lowspeed = 1000;

  auto start = clock_type::now();
  EXPECT_FALSE(download_file(handle, server.url(), target, params, false));

  EXPECT_LT(clock_type::now() - start, std::chrono::seconds(8));
  auto failures = texts(log_id_failure, "Download error");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].rfind("Download error: " + server.url() + " -> Operation too slow. Less than 1000 bytes/sec", 0),
            0u)
      << failures[0];
}

}  // namespace
}  // namespace update::transfer_test
