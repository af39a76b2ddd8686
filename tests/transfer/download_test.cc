// The transfer against real servers: the one download (resume, rollback and
// refused ranges, failures and their retries, a stop in the middle, a server
// too slow to keep, the flushes), fetching a source's description, and the
// download stage with the per-file decision before it, as a run makes them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <random>
#include <sstream>
#include <thread>
#include <tuple>

#include <curl/curl.h>

#include "fixtures/fault_server.h"
#include "facts/stop_flag.h"
#include "frame/update.h"
#include "planning/plan_rule.h"
#include "platform/hash_file.h"
#include "sign/patch_make.h"
#include "status/status_fixture.h"
#include "support/uri_join.h"
#include "transfer/body_hash.h"
#include "transfer/download.h"
#include "transfer/download_stage.h"
#include "transfer/update_ini_fetch.h"

namespace update::testing {
namespace {

using fixtures::read_file;
using fixtures::write_file;

// -1 when the file is missing.
inline int64_t disk_size(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

inline std::string ranges_of(const std::vector<fixtures::served_request_t>& requests) {
  std::string text;
  for (const auto& r : requests) text += "[" + (r.range.empty() ? "-" : r.range) + " " + std::to_string(r.status) + "]";
  return text;
}

// The module running (a stopped module aborts every transfer), a status that
// is never written to disk, and a fresh handle.
class transfer_test_t : public StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    platform::file_faults().fail_truncate = false;
    set_module_state(module_busy);
    quiet();
  }
  void TearDown() override { curl_easy_cleanup(handle); StatusTest::TearDown(); }

  // Limits that keep a broken test short; nothing here slows a good one.
  static params_t quick_params(int retry = 0) {
    params_t p;
    p.connect_timeout = 5, p.download_lowtime = 10, p.download_lowspeed = 1, p.download_retry = retry;
    return p;
  }
  // Makes the status entry of name current, as the download stage does.
  static file_status_t& make_current_file(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return *(status.current_file = &status.file_entry(name));
  }
  bool start_nginx() {
    std::string error;
    const bool ok = nginx.start(error) && nginx.put_file("f.bin", source);
    EXPECT_TRUE(ok) << error;
    return ok;
  }
  bool serve(const std::vector<std::string>& faults) { return server.start(dir_.write("source", source), faults); }

  CURL* handle = curl_easy_init();
  const std::string source = [] {
    std::string bytes(3000, '\0');
    for (std::mt19937 engine(7); auto& b : bytes) b = static_cast<char>(engine());
    return bytes;
  }();
  const std::string target = dir_.path("f.bin.download.2");
  fixtures::nginx_server_t nginx;
  fixtures::fault_server_t server;
};

using clock_type = std::chrono::steady_clock;
using Download = transfer_test_t;

// A partial file whose last `damaged` bytes are not the source's, as a broken
// connection may leave it: only a transfer that starts early enough repairs it.
void write_partial(const std::string& path, const std::string& source, size_t size, size_t damaged) {
  write_file(path, source.substr(0, size - damaged) + std::string(damaged, 'x'));
}

// A rollback that cannot cut starts from byte 0; the status counts the whole file, resumed or not.
TEST_F(Download, RollbackDecidesWhereTheTransferStarts) {
  ASSERT_TRUE(start_nginx());
  // partial 0: no file; truncated: the size a "File truncated" line tells, or 0
  const struct { size_t partial; uint64_t rollback; std::string range; size_t truncated; bool cut_fails = false; }
      rows[] = {{1000, 0, "bytes=1000-", 0}, {1000, 100, "bytes=900-", 900}, {1000, 999, "bytes=1-", 1},
                {1000, 1000, "", 0}, {1000, 5000, "", 0}, {0, 100, "", 0}, {1000, 100, "", 0, true}};
  size_t served = 0, truncations = 0;
  const file_status_t& entry = make_current_file("f.bin");
  for (const auto& row : rows) {
    std::filesystem::remove(target);
    if (row.partial != 0) write_partial(target, source, row.partial, std::min<uint64_t>(row.rollback, row.partial));
    params_t params = quick_params();
    params.download_rollback_size = row.rollback;
    platform::file_faults().fail_truncate = row.cut_fails;
    ASSERT_TRUE(download_file(handle, nginx.url("/f.bin"), target, params, true));
    EXPECT_TRUE(read_file(target) == source);
    auto requests = nginx.requests(++served);
    ASSERT_EQ(requests.size(), served);
    EXPECT_EQ(requests.back().range, row.range) << row.partial << " bytes, rollback " << row.rollback;
    EXPECT_EQ(logged("File truncated"), truncations += row.truncated != 0);
    EXPECT_EQ(logged("File truncated: " + target + ", size: 1000 -> " + std::to_string(row.truncated)),
              row.truncated != 0);
    EXPECT_EQ(logged("can't truncate file: " + target + ", size: 1000 -> 900"), row.cut_fails);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(entry.download_size, source.size()) << row.partial << " bytes, rollback " << row.rollback;
  }
}

// A server that ignores the range or refuses one at the end of its file (416), or a local file shorter than
// the partial one, gives the whole file anew; the restart uses no attempt, and resume stays off after it.
TEST_F(Download, RefusedRangeRewritesFromZeroWithoutUsingRetry) {
  ASSERT_TRUE(serve({"full", "cut&bytes=500"}));
  const std::string url = server.url(), local = "file://" + dir_.write("local", source);
  const std::tuple<std::string, size_t, std::string, std::string> rows[] = {
      {url, 1000, "[bytes=1000- 200][- 200][- 200]", "Requested range was not delivered"},
      {url, 3000, "[bytes=3000- 416][- 200]", "HTTP response code said error : The requested URL returned error: 416"},
      {local, 3004, "", "Couldn't resume download"}};
  size_t served = 0;
  for (const auto& [from, partial, ranges, reason] : rows) {
    write_partial(target, source, partial, partial - std::min(partial, source.size()));
    ASSERT_TRUE(download_file(handle, from, target, quick_params(1), true));
    EXPECT_TRUE(read_file(target) == source);
    const auto requests = server.requests();
    EXPECT_EQ(ranges_of({requests.begin() + served, requests.end()}), ranges);
    served = requests.size();
    EXPECT_EQ(logged("Download resume failed: " + from + " -> " + reason), 1u);
  }
}

// Every attempt fails alike, keeping nothing; a target that cannot be opened fails at once; a body
// longer than the file may be never reaches it.
TEST_F(Download, FailuresUseEveryAttemptButATargetThatCannotBeOpened) {
  ASSERT_TRUE(start_nginx());
  const std::string missing = nginx.url("/missing.bin"), url = nginx.url("/f.bin");
  const std::tuple<std::string, std::string, bool, size_t, uint64_t, std::string> rows[] = {
      {missing, target, false, 3, 0, "Download error: " + missing + " -> The requested URL returned error: 404"},
      {url, target, true, 0, 0, "Download error: " + url + " -> can't open file for writing: " + target},
      {url, "/dev/full", false, 3, 0, "Download error: " + url + " -> Failed writing received data to disk/application"},
      {url, target, false, 3, 1000, "Download error: " + url + " -> the server sent more than 1000 bytes"},
  };
  size_t served = 0;
  for (const auto& [from, path, open_fails, requests, most, error] : rows) {
    quiet();
    const file_status_t& entry = make_current_file("f.bin");
    platform::file_faults().fail_open_write = open_fails;
    EXPECT_FALSE(download_file(handle, from, path, quick_params(2), true, nullptr, {most}));
    platform::file_faults().fail_open_write = false;
    EXPECT_EQ(nginx.requests(served += requests).size(), served);
    EXPECT_EQ(read_file(target), "");
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    EXPECT_EQ(entry.error, error);
  }
  EXPECT_EQ(logged("can't open file for writing"), 1u);  // no further attempt
}

TEST_F(Download, TextFetchKeepsAtMostOneByteBeyondTheLimit) {
  ASSERT_TRUE(start_nginx());
  const std::tuple<const char*, size_t, text_fetch_t, size_t> rows[] = {  // path, limit, outcome, bytes kept
      {"/f.bin", 2999, text_fetch_t::fetched, 3000}, {"/f.bin", 3000, text_fetch_t::fetched, 3000},
      {"/f.bin", 3001, text_fetch_t::fetched, 3000}, {"/f.bin", 0, text_fetch_t::fetched, 1},
      {"/missing", 3000, text_fetch_t::missing, 0}};
  for (const auto& [path, limit, outcome, kept] : rows) {
    std::string text = "stale", reason;
    EXPECT_EQ(fetch_text(handle, nginx.url(path), quick_params(), limit, 0, text, reason), outcome) << limit;
    EXPECT_TRUE(text == source.substr(0, kept)) << limit << ": " << text.size();
  }
}

// Pieces that pass the end of the hash's 4 MiB ring, fill it exactly or
// outgrow it hash as the bytes on disk do, whether the ring is empty or full
// when they come: a second attempt goes on where the first left the ring.
TEST(BodyHash, PiecesAcrossTheRingsEndHashAsTheFileDoes) {
  fixtures::scratch_dir_t dir;
  std::string bytes((size_t{9} << 20) + 17, '\0');
  for (std::mt19937 engine(3); auto& b : bytes) b = static_cast<char>(engine());
  const std::string path = dir.write("f", bytes);
  std::string on_disk;
  ASSERT_TRUE(HashFileChecker::CalcHash(path, "", on_disk));
  const size_t ring = size_t{4} << 20;
  for (const auto& [first, piece] : {std::pair{ring - 10, size_t{1000003}}, {ring, ring}, {size_t{1}, ring + 1}}) {
    body_hash_t hash("", "f");
    hash.begin(path, 0);
    hash.add(bytes.data(), first);
    hash.end();
    hash.begin(path, first);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // the hash waits for bytes, as behind a slow server
    for (size_t at = first; at < bytes.size(); at += piece) hash.add(bytes.data() + at, std::min(piece, bytes.size() - at));
    std::string streamed;
    EXPECT_TRUE(hash.result(bytes.size(), streamed) && streamed == on_disk && !hash.result(bytes.size(), streamed))
        << piece;  // and the state is spent
  }
}

// The progress callback sees the stop; no further attempt follows although
// attempts are left, and the partial file stays, with a hash of what it holds.
// Meanwhile the connection probes a silent server: its timer in
// /proc/net/tcp is the keepalive one (2).
TEST_F(Download, StopDuringTransferAbortsWithoutFurtherAttempt) {
  ASSERT_TRUE(serve({"trickle&chunk=10&interval_ms=50"}));
  file_status_t& entry = make_current_file("f.bin");
  std::atomic<bool> done{false};
  std::string timer;
  std::thread stopper([&] {
    for (auto end = clock_type::now() + std::chrono::seconds(20); !done && clock_type::now() < end;) {
      {
        std::lock_guard<std::recursive_mutex> hold(status.lock);
        if (entry.download_size >= 20) break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::istringstream tcp(read_file("/proc/net/tcp"));
    const unsigned long port = std::stoul(server.url("").substr(server.url("").rfind(':') + 1));
    for (std::string line, sl, local, remote, state, queues, times; std::getline(tcp, line);)
      if (std::istringstream(line) >> sl >> local >> remote >> state >> queues >> times && state == "01" &&
          std::stoul(remote.substr(remote.find(':') + 1), nullptr, 16) == port)
        timer = times.substr(0, 2);
    fini();
  });
  auto start = clock_type::now();
  body_hash_t hash("", "f.bin");
  EXPECT_FALSE(download_file(handle, server.url(), target, quick_params(3), true, &hash));
  done = true;
  stopper.join();
  EXPECT_LT(clock_type::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(logged("Download begin"), 1u);
  EXPECT_EQ(reported(), "Download error: " + server.url() + " -> Callback aborted");
  EXPECT_EQ(timer, "02");
  EXPECT_GE(disk_size(target), 20);
  std::string streamed, on_disk;
  EXPECT_TRUE(hash.result(disk_size(target), streamed) && HashFileChecker::CalcHash(target, "", on_disk));
  EXPECT_EQ(streamed, on_disk);
}

// One byte sits in the stream before each call; the file on disk shows
// whether the call flushed it.
TEST_F(Download, ProgressFlushesEveryIntervalOfThisAttempt) {
  const std::string path = dir_.path("flushed");
  FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::setvbuf(file, nullptr, _IOFBF, 1 << 16);
  flush_context_t context{file, 0, 1000};
  file_status_t& entry = make_current_file("f.bin");
  entry.total_size = 7;  // a server that tells no size leaves it
  const struct { double dlnow; bool legacy, flushed; } rows[] = {
      {999, false, false}, {1000, false, true}, {1999, false, false}, {2000, false, true}, {2600, false, false},
      {3500, false, true}, {4499.9, true, false}, {4500, true, true},
      {9223372036854775808.0, true, true}};  // 2^63 counts as the largest size, not a negative one
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
  EXPECT_TRUE(entry.download_size == INT64_MAX && entry.total_size == 7) << entry.download_size << " " << entry.total_size;
}

TEST(UriJoin, KeepsTheQueryAtTheEnd) {
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"a/b/", "update.ini", "a/b/update.ini"},   {"a/b", "update.ini", "a/b/update.ini"},
      {"a/b?k=1", "update.ini", "a/b/update.ini?k=1"}, {"a/b/?k=1", "update.ini", "a/b/update.ini?k=1"},
      {"a/b?k=1", "f.bin?x=2", "a/b/f.bin?x=2"},  {"a/b?k=1", "/f.bin", "a/b/f.bin?k=1"},
      {"a/b?x?y", "f", "a/b?x/f?y"},  // the last "?" counts
      {"?k=1", "f", "/f?k=1"},
  };
  for (const auto& [base, name, joined] : rows) {
    std::string text = base;
    EXPECT_EQ(&uri_join(text, name), &text);
    EXPECT_EQ(text, joined) << base << " + " << name;
  }
}

using FetchUpdateIni = transfer_test_t;

// Each source is fetched whole over the one local copy; no URI touches
// neither file nor network, and leaves its error in its own message.
TEST_F(FetchUpdateIni, EachSourceOverwritesTheCopyAndKeepsItsOwnError) {
  ASSERT_TRUE(start_nginx());
  const std::string first(5000, 'a');
  ASSERT_TRUE(nginx.put_file("one/update.ini", first));
  ASSERT_TRUE(nginx.put_file("two/update.ini", "[short]\n"));
  const std::string no_uri = "Download error: URI not specified (should be obtained from the Policy Managment Server)";
  const std::tuple<std::string, std::string, std::string> sources[] = {
      {nginx.url("/one?k=1"), first, ""}, {"", first, no_uri}, {nginx.url("/two/"), "[short]\n", ""},
  };
  for (const auto& [uri, copy, error] : sources) {
    status.select_message(uri);
    EXPECT_EQ(fetch_update_ini(uri, dir_.path(), "corvid_update.ini", handle, params_t{}), error.empty());
    EXPECT_TRUE(read_file(dir_.path("corvid_update.ini")) == copy) << uri;
    EXPECT_EQ(reported(), error);
  }
  std::string asked;
  for (const auto& r : nginx.requests(2)) asked += "[" + r.target + " " + r.range + "]";
  EXPECT_EQ(asked, "[/one/update.ini?k=1 ][/two/update.ini ]");
}

class DownloadStage : public transfer_test_t {
 protected:
  // A rule of version 2 whose files come from base + name, all with the
  // source's hash unless one is given.
  file_rule_t& rule_of(const std::string& base, const std::vector<std::string>& names, const char* hash = nullptr) {
    static_cast<params_t&>(ini) = quick_params();
    file_rule_t& rule = ini.rules.emplace_back();
    rule.update_version = "2";
    rule.owner = &ini;
    std::string source_hash;
    HashFileChecker::CalcHash(dir_.write("reference", source), "", source_hash);
    for (const auto& name : names)
      rule.entries.push_back({name, dir_.path(name), base + name, hash ? hash : source_hash, 3000, false});
    return rule;
  }
  // What one run does with a rule once its source is merged.
  void run(file_rule_t& rule) {
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      for (const auto& e : rule.entries) status.file_entry(e.name).available = true;
    }
    plan_rule(rule, dir_.path());
    download_rule(rule, handle);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.current_file = nullptr;
  }
  file_status_t entry(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.file_entry(name);
  }

  update_ini_t ini;
};

// A file that cannot reach the disk or its final name keeps its temporary
// name; the next run takes it by its size, or its hash, without a request.
TEST_F(DownloadStage, FileThatCannotReachItsPlaceIsTakenNextTime) {
  ASSERT_TRUE(start_nginx());
  const std::tuple<std::atomic<bool> platform::file_faults_t::*, std::string, uint64_t> rows[] = {
      {&platform::file_faults_t::fail_sync, "Failed to write downloaded file to disk: " + target, 3000},
      {&platform::file_faults_t::fail_replace, "Failed to rename downloaded file to: " + dir_.path("f.bin"), 0}};
  size_t served = 0;
  for (const auto& [fault, error, size] : rows) {
    SetUp();
    std::filesystem::remove(dir_.path("f.bin"));
    file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin"});
    rule.entries.front().size = size;
    platform::file_faults().*fault = true;
    run(rule);
    EXPECT_EQ(entry("f.bin").state, file_download);
    EXPECT_EQ(entry("f.bin").error, error);
    EXPECT_EQ(disk_size(dir_.path("f.bin")), -1);
    platform::file_faults().*fault = false;
    run(rule);
    EXPECT_EQ(entry("f.bin").state, file_downloaded);
    EXPECT_TRUE(read_file(dir_.path("f.bin")) == source);
    EXPECT_EQ(nginx.requests(++served).size(), served);
  }
}

// However the file came together, the status records the hash of the bytes on disk; only a kept part or a file
// taken as it stood is read back for it, so a hash that lost track of the file shows as one read too many.
TEST_F(DownloadStage, RecordsTheHashOfTheBytesOnDiskOnEveryResumePath) {
  const struct {
    size_t partial, damaged;  // a temporary file of the source's first bytes, its last `damaged` wrong
    uint64_t size, rollback;  // size 0: the rule gives none
    std::vector<std::string> faults;
    std::string ranges;
    uint64_t reads;
    bool cut_fails = false;
  } rows[] = {{0, 0, 3000, 100, {}, "[- 200]", 0},
              {1000, 100, 3000, 100, {}, "[bytes=900- 206]", 1}, {1000, 100, 3000, 100, {}, "[- 200]", 0, true},
              {3000, 1, 0, 0, {}, "[bytes=3000- 416][- 200]", 2},  // not whole by its hash, nor on the server
              {1000, 1, 3000, 0, {"full"}, "[bytes=1000- 200][- 200]", 1},
              {0, 0, 3000, 0, {"cut&bytes=1000"}, "[- 200][bytes=1000- 206]", 0},
              {0, 0, 3000, 100, {"cut&bytes=1000"}, "[- 200][bytes=900- 206]", 1}, {3000, 0, 3000, 0, {}, "", 1},
              {3000, 0, 0, 0, {}, "", 1}};
  for (const auto& row : rows) {
    SetUp();
    ini.rules.clear();
    for (const char* name : {"f.bin", "source.served"}) std::filesystem::remove(dir_.path(name));
    fixtures::fault_server_t faulty;
    ASSERT_TRUE(faulty.start(dir_.write("source", source), row.faults));
    file_rule_t& rule = rule_of(faulty.url("/"), {"f.bin"});
    rule.entries.front().size = row.size;
    ini.download_rollback_size = row.rollback, ini.download_retry = 1;
    if (row.partial != 0) write_partial(target, source, row.partial, row.damaged);
    platform::file_faults().fail_truncate = row.cut_fails;
    const uint64_t reads = platform::hash_reads_done();
    run(rule);
    EXPECT_EQ(platform::hash_reads_done() - reads, row.reads) << row.ranges;
    const file_status_t f = entry("f.bin");
    std::string on_disk;
    HashFileChecker::CalcHash(dir_.path("f.bin"), "", on_disk);
    EXPECT_EQ(f.download_hash, on_disk) << row.ranges;
    EXPECT_EQ(ranges_of(faulty.requests()), row.ranges);
    EXPECT_EQ(f.state, file_downloaded);
    EXPECT_EQ(f.error.empty(), read_file(dir_.path("f.bin")) == source) << row.ranges;
  }
}

TEST_F(DownloadStage, VerifiesInTheTypeTheDescriptionNames) {
  ASSERT_TRUE(start_nginx());
  std::string gost, sha;
  HashFileChecker::CalcHash(dir_.write("reference", source), "", gost);
  HashFileChecker::CalcHash(dir_.path("reference"), "$sha256:", sha);
  const std::pair<std::string, bool> rows[] = {
      {gost, true},
      {"$gost3411_256_2012:" + gost.substr(gost.find(':') + 1), true},  // a lower-case type verifies too
      {sha, true},
      {"", true},  // nothing to compare with
      {"#GOST3411_256_2012:" + std::string(64, '0'), false},
  };
  size_t served = 0;
  for (const auto& [hash, good] : rows) {
    SetUp();
    ini.rules.clear();
    write_file(dir_.path("f.bin"), "in place");  // a mismatch leaves it alone, in this run and the next
    file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin"}, hash.c_str());
    for (int runs = good ? 1 : 2; runs > 0; --runs) run(rule);
    EXPECT_EQ(nginx.requests(served += good ? 1 : 2).size(), served) << hash;  // never taken as it stood
    const file_status_t f = entry("f.bin");
    EXPECT_EQ(f.state, good ? file_downloaded : file_download) << hash;
    EXPECT_EQ(f.download_hash.substr(0, hash.find(':') + 1), hash.substr(0, hash.find(':') + 1)) << hash;
    EXPECT_EQ(f.error, good ? "" : "[f.bin] Hash mismatch. Calculated: " + gost + ", from update server: " + hash);
    EXPECT_EQ(status.derive_result(), good ? status_downloaded : status_error) << hash;
    EXPECT_TRUE(read_file(dir_.path("f.bin")) == (good ? source : "in place"));
  }
}

// A server that sends too little is cut by the low-speed limit, or with that limit off at the time
// the file's size gives: 1 s + 2 x 3000 / 6000 s.
TEST_F(DownloadStage, DripIsCutByTheLowSpeedLimitOrAtTheTimeTheSizeGives) {
  ASSERT_TRUE(serve({"trickle&chunk=10&interval_ms=50", "trickle&chunk=10&interval_ms=50"}));
  for (const auto& [lowtime, cut] : {std::pair{0, "Operation timed out after"}, {1, "Operation too slow"}}) {
    SetUp();
    file_rule_t& rule = rule_of(server.url("/"), {"f.bin"});
    ini.connect_timeout = 1, ini.download_lowtime = lowtime, ini.download_lowspeed = 6000;
    run(rule);
    EXPECT_NE(entry("f.bin").error.find(cut), std::string::npos) << entry("f.bin").error;
  }
}

TEST(FileLimits, CountLibcurlsOwnConnectLimitAtLeastOneByteASecondAndNeverWrap) {
  const auto limit = [](int32_t connect, int32_t lowtime, int32_t lowspeed, uint64_t size) {
    params_t p;
    p.connect_timeout = connect, p.download_lowtime = lowtime, p.download_lowspeed = lowspeed;
    return file_limits(p, size).time_ms;
  };
  EXPECT_EQ(limit(60, 10, 10, 1005), 271000u);
  EXPECT_EQ(limit(0, -5, 0, 3), 306000u);
  EXPECT_EQ(limit(1, 1, 1, uint64_t{1} << 62), 2147483647ull * 2000 + 2000);
}

// The commands run once for the rule, before its first fetch, and not at all
// when nothing is fetched; an oversized temporary file is fetched anew.
TEST_F(DownloadStage, CommandsGoFirstAndAnOversizedTemporaryFileIsRefetched) {
  ASSERT_TRUE(start_nginx());
  ASSERT_TRUE(nginx.put_file("g.bin", source));
  file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin", "g.bin"});
  const std::string count = dir_.path("count");
  rule.exec_before_download = {"sh -c 'test -e " + target + " || echo ran >>" + count + "'"};
  write_file(dir_.path("g.bin.download.2"), source + "tail");
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_EQ(entry("g.bin").state, file_downloaded);
  EXPECT_TRUE(read_file(dir_.path("g.bin")) == source);
  EXPECT_EQ(ranges_of(nginx.requests(2)), "[- 200][- 200]");
  run(rule);
  EXPECT_EQ(read_file(count), "ran\n");
  // A command that fails leaves the file unfetched, in state 3.
  SetUp();
  file_rule_t& failing = rule_of(nginx.url("/"), {"f.bin"});
  failing.exec_before_download = {"false"};
  run(failing);
  EXPECT_EQ(entry("f.bin").state, file_download);
  EXPECT_EQ(entry("f.bin").error, "exec() exit: false, status: 1");
}

// A patch serves only when every step holds; in any other case the whole file
// comes, with one line that says why, and nothing of the patch is left. A
// base the status recorded as installed is not read to pick the patch.
TEST_F(DownloadStage, PatchThatDoesNotServeGivesWayToTheWholeFile) {
  ASSERT_TRUE(start_nginx());
  std::string old = source, changed = source, other = source;
  old.insert(old.begin() + 2000, 40, 'x');
  changed[10] ^= 1, other[2999] ^= 1;
  const std::string tampered = std::string(old).replace(5, 1, 1, '!');
  auto patch = [](const std::string& from, const std::string& to) {
    std::string bytes, error;
    EXPECT_TRUE(make_patch(reinterpret_cast<const unsigned char*>(from.data()), from.size(),
                           reinterpret_cast<const unsigned char*>(to.data()), to.size(), bytes, error));
    return bytes;
  };
  const std::string good = patch(old, source), corrupt = std::string(good).replace(60, 1, 1, good[60] ^ 1);
  const struct {
    const std::string* held;           // the file at the entry's place, or none
    std::string served, described;    // the patch on the server (none when empty), and the one the line gives
    uint64_t less = 0;                 // bytes the line's size keeps below the described patch's
    std::string says;                  // the fallback's reason; empty: the patch serves
    bool installed = false;            // the status records old as downloaded whole, then installed
  } rows[] = {
      {&old, good, good, 0, ""}, {&old, good, good, 0, "", true},
      {&tampered, good, good, 0, "patched file does not match. Calculated: ", true},
      {nullptr, good, good, 0, "no file to patch: " + dir_.path("f.bin")},
      {&changed, good, good, 0, "no patch for the file at hand, whose hash is "},
      {&old, corrupt, good, 0, "patch hash mismatch. Calculated: "},
      {&old, "", good, 0, "The requested URL returned error: 404"},
      {&old, good, good, 10, "the server sent more than " + std::to_string(good.size() - 10) + " bytes"},
      {&old, patch(old + "y", source), patch(old + "y", source), 0, "patch does not apply: made for a base"},
      {&old, patch(old, other), patch(old, other), 0, "patched file does not match. Calculated: "},
  };
  // The rule of f.bin with one patch line, what it holds and what is served.
  auto prepare = [&](const std::string* held, const std::string& served, const std::string& described,
                     uint64_t less, bool installed, const std::string& base) -> file_rule_t& {
    SetUp();
    ini.rules.clear();
    if (installed) {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      file_status_t& f = status.file_entry("f.bin");
      f.state = file_uptodate, f.update_version = "1", f.download_size = base.size();
      HashFileChecker::CalcHash(dir_.write("installed", base), "", f.download_hash);
    }
    std::filesystem::remove(dir_.path("f.bin"));
    if (held) write_file(dir_.path("f.bin"), *held);
    std::filesystem::remove(nginx.root() + "/f.bin.patch");
    EXPECT_TRUE(served.empty() || nginx.put_file("f.bin.patch", served));
    file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin"});
    patch_t& offered = rule.entries.front().patches.emplace_back();
    HashFileChecker::CalcHash(dir_.write("base", base), "", offered.base_hash);
    HashFileChecker::CalcHash(dir_.write("described", described), "", offered.hash);
    offered.uri = nginx.url("/f.bin.patch");
    offered.size = described.size() - less;
    return rule;
  };
  size_t served = 0;
  for (const auto& row : rows) {
    file_rule_t& rule = prepare(row.held, row.served, row.described, row.less, row.installed, old);
    const std::string line = row.says.empty() ? "[f.bin] patched from " : row.says;
    const size_t lines = logged("patch not used, fetching the whole file: "), said = logged(line);
    const uint64_t reads = platform::hash_reads_done();
    run(rule);
    EXPECT_TRUE(!row.installed || !row.says.empty() || platform::hash_reads_done() == reads) << row.says;
    EXPECT_EQ(entry("f.bin").state, file_downloaded) << row.says;
    EXPECT_EQ(entry("f.bin").error, "") << row.says;
    EXPECT_EQ(entry("f.bin").base_hash, "") << row.says;  // the file at its place is the new one
    EXPECT_TRUE(read_file(dir_.path("f.bin")) == source) << row.says;
    EXPECT_EQ(logged("patch not used, fetching the whole file: ") - lines, row.says.empty() ? 0u : 1u) << row.says;
    EXPECT_EQ(logged(line) - said, 1u) << row.says;
    // The patch is asked for only when its base is there; the whole file only when the patch does not serve.
    const bool base_there = row.held == &old || row.installed;
    const auto requests = nginx.requests(served + base_there + !row.says.empty());
    std::string asked;
    for (size_t i = served; i < requests.size(); ++i) asked += requests[i].target + " ";
    EXPECT_EQ(asked, std::string(base_there ? "/f.bin.patch " : "") + (row.says.empty() ? "" : "/f.bin "))
        << row.says;
    served = requests.size();
    for (const char* left : {"f.bin.download.2.patch", "f.bin.download.2.patched", "f.bin.download.2"})
      EXPECT_FALSE(std::filesystem::exists(dir_.path(left))) << left << " " << row.says;
  }
  // A run that died after the new file took its place, before the status said so, left it to be taken as
  // it stands, though the status still records a base of its size.
  run(prepare(&source, patch(other, source), patch(other, source), 0, true, other));
  EXPECT_EQ(nginx.requests(served).size(), served);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  // A stop is no reason to give up the patch: what came of it stays, without a notice, for the next run.
  file_rule_t& rule = prepare(&old, good, good, 0, false, old);
  request_stop();
  run(rule);
  clear_stop_request();
  EXPECT_EQ(entry("f.bin").state, file_download);
  EXPECT_EQ(entry("f.bin").error, "Download error: " + nginx.url("/f.bin") + " -> Callback aborted");
  EXPECT_TRUE(std::filesystem::exists(dir_.path("f.bin.download.2.patch")));
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_TRUE(read_file(dir_.path("f.bin")) == source);
  EXPECT_EQ(logged("patch not used"), std::size(rows) - 2);
}

}  // namespace
}  // namespace update::testing
