// The one transfer: resume, rollback and refused ranges, failures and their
// retries, a stop in the middle, a server too slow to keep, and the flushes;
// then fetching a source's description, and adding a file name to a URI.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "transfer/transfer_support.h"
#include "transfer/update_ini_fetch.h"

namespace update::transfer_test {
namespace {

using clock_type = std::chrono::steady_clock;
using Download = transfer_test_t;

// A partial file whose last `damaged` bytes are not the source's, as a broken
// connection may leave it: only a transfer that starts early enough repairs it.
void write_partial(const std::string& path, const std::string& source, size_t size, size_t damaged) {
  write_file(path, source.substr(0, size - damaged) + std::string(damaged, 'x'));
}

TEST_F(Download, RollbackDecidesWhereTheTransferStarts) {
  ASSERT_TRUE(start_nginx());
  const struct {
    size_t partial;  // 0: no file
    uint64_t rollback;
    std::string range;
    size_t truncated;  // the size a "File truncated" line tells, or 0
  } rows[] = {{1000, 0, "bytes=1000-", 0}, {1000, 100, "bytes=900-", 900}, {1000, 999, "bytes=1-", 1},
              {1000, 1000, "", 0},         {1000, 5000, "", 0},            {0, 100, "", 0}};
  size_t served = 0, truncations = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.partial) + " bytes, rollback " + std::to_string(row.rollback));
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
    const auto lines = texts(log_id_course, "File truncated");
    ASSERT_EQ(lines.size(), truncations += row.truncated != 0);
    if (row.truncated) {
      EXPECT_EQ(lines.back(), "File truncated: " + target + ", size: 1000 -> " + std::to_string(row.truncated));
    }
  }
}

// A retry resumes from what is on disk; the rollback is done once per call,
// and one that cannot cut the file starts over from byte 0 and is tried again.
TEST_F(Download, RetriesResumeFromTheDiskAndRollBackOnce) {
  const struct {
    bool truncate_fails;
    const char* fault;
    std::string ranges;
  } rows[] = {{false, "cut&bytes=50", "[bytes=900- 206][bytes=950- 206]"}, {true, "cut&bytes=500", "[- 200][- 200]"}};
  for (const auto& row : rows) {
    SetUp();
    write_partial(target, source, 1000, 100);
    platform::file_faults().fail_truncate = row.truncate_fails;
    fixtures::fault_server_t cut;
    ASSERT_TRUE(cut.start(dir_.write(row.fault, source), {row.fault}));
    params_t params = quick_params(1);
    params.download_rollback_size = 100;
    ASSERT_TRUE(download_file(handle, cut.url(), target, params, true));
    EXPECT_TRUE(read_file(target) == source);
    EXPECT_EQ(ranges_of(cut.requests()), row.ranges);
    EXPECT_EQ(texts(log_id_course, "File truncated: " + target + ", size: 1000 -> 900").size(), 1u);
    EXPECT_EQ(texts(log_id_notice, "Download error: " + cut.url() + " -> can't truncate file: " + target +
                                       ", size: 500 -> 400").size(), row.truncate_fails ? 1u : 0u);
    EXPECT_EQ(texts(log_id_course, "Download completed: " + cut.url() + " -> " + target).size(), 1u);
  }
}

// A server that ignores the range is asked again for the whole file; that
// restart uses no attempt, and resume stays off for the rest of the call.
TEST_F(Download, RefusedRangeRewritesFromZeroWithoutUsingRetry) {
  write_partial(target, source, 1000, 0);
  ASSERT_TRUE(serve({"full", "cut&bytes=500"}));
  const std::string url = server.url();
  ASSERT_TRUE(download_file(handle, url, target, quick_params(1), true));
  EXPECT_TRUE(read_file(target) == source);
  EXPECT_EQ(ranges_of(server.requests()), "[bytes=1000- 200][- 200][- 200]");
  EXPECT_EQ(texts(log_id_notice, "Download resume failed: " + url + " -> Requested range was not delivered").size(), 1u);
  const std::string begin = "Download begin: " + url + " -> " + target + ", offset: ";
  EXPECT_EQ(texts(log_id_course, begin + "0, retry: 0/1").size(), 1u);
}

// Every attempt fails alike and the target keeps what it had: nothing for an
// error page, and a whole file that asks for a range at its end (416).
TEST_F(Download, HttpErrorUsesEveryRetryAndKeepsTheTarget) {
  ASSERT_TRUE(start_nginx());
  const struct {
    const char* name;
    int retry;
    bool whole;
    std::string ranges, reason;
  } rows[] = {{"/missing.bin", 2, false, "[- 404][- 404][- 404]", "404"},
              {"/f.bin", 1, true, "[bytes=3000- 416][bytes=3000- 416]", "416"}};
  size_t served = 0;
  for (const auto& row : rows) {
    quiet();
    file_status_t& entry = make_current_file("f.bin");
    std::filesystem::remove(target);
    if (row.whole) write_file(target, source);
    EXPECT_FALSE(download_file(handle, nginx.url(row.name), target, quick_params(row.retry), true));
    auto requests = nginx.requests(served += row.retry + 1);
    ASSERT_EQ(requests.size(), served);
    EXPECT_EQ(ranges_of({requests.end() - row.retry - 1, requests.end()}), row.ranges);
    EXPECT_EQ(read_file(target), row.whole ? source : "");
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(entry.error, "Download error: " + nginx.url(row.name) + " -> The requested URL returned error: " + row.reason);
  }
  EXPECT_TRUE(texts(log_id_notice, "Download resume failed").empty());
}

TEST_F(Download, UnopenableTargetFailsBeforeAnyAttempt) {
  const std::string url = "http://127.0.0.1:1/f.bin", path = dir_.path("no-such-dir/f.bin");
  EXPECT_FALSE(download_file(handle, url, path, quick_params(2), false));
  EXPECT_TRUE(texts(log_id_course, "Download begin").empty());
  EXPECT_EQ(reported(), "Download error: " + url + " -> can't open file for writing: " + path);
}

// The progress callback sees the stop; no further attempt follows although
// attempts are left, and the partial file stays.
TEST_F(Download, StopDuringTransferAbortsWithoutFurtherAttempt) {
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
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(reported(), "Download error: " + server.url() + " -> Callback aborted");
  EXPECT_GE(disk_size(target), 20);
}

TEST_F(Download, TricklingServerIsDroppedAfterLowTime) {
  ASSERT_TRUE(serve({"trickle&chunk=1&interval_ms=200"}));
  params_t params = quick_params();
  params.download_lowtime = 1, params.download_lowspeed = 1000;
  auto start = clock_type::now();
  EXPECT_FALSE(download_file(handle, server.url(), target, params, false));
  EXPECT_LT(clock_type::now() - start, std::chrono::seconds(8));
  EXPECT_EQ(reported().rfind("Download error: " + server.url() + " -> Operation too slow. Less than 1000 bytes/sec", 0),
            0u) << reported();
}

// One byte sits in the stream before each call; the file on disk shows
// whether the call flushed it.
TEST_F(Download, ProgressFlushesEveryIntervalOfThisAttempt) {
  const std::string path = dir_.path("flushed");
  FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::setvbuf(file, nullptr, _IOFBF, 1 << 16);
  flush_context_t context{file, 0, 1000};
  const struct {
    double dlnow;
    bool legacy, flushed;
  } rows[] = {{999, false, false},  {1000, false, true}, {1999, false, false},  {2000, false, true},
              {2600, false, false}, {3500, false, true}, {4499.9, true, false}, {4500, true, true}};
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
