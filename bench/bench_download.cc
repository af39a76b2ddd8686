// Download of a 1 GiB file from nginx on loopback through download_file,
// against curl -s -o of the same file, alternating, median of each; peak RSS
// of our download; a resume that must fetch only the second half. Each
// download runs in a child process (this binary in --fetch mode, or curl)
// whose time and ru_maxrss come from wait4, so the parent's memory does not
// count. Prints a table with a verdict per target; exits 1 only when the
// bytes or the resumed range are wrong, since the timings depend on the load
// of the machine.
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "bench/bench_support.h"
#include "fixtures/nginx_server.h"
#include "frame/module.h"
#include "status/status.h"
#include "transfer/download.h"

namespace {

constexpr uint64_t file_bytes = uint64_t{1} << 30;
constexpr int pairs = 5;
constexpr double time_ratio_limit = 1.05;
constexpr double rss_limit_mib = 32.0;
constexpr const char* curl_binary = "/usr/bin/curl";

// The helper mode: one download as the download stage makes it, resuming
// whatever is on disk.
int fetch(const char* url, const char* path) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    std::lock_guard<std::mutex> hold(update::module_lock);
    update::module_state = update::module_busy;
  }
  {
    std::lock_guard<std::recursive_mutex> hold(update::status.lock);
    update::status.save_enabled = false;
    update::status.current_file = &update::status.file_entry("big.bin");
  }
  CURL* handle = curl_easy_init();
  bool ok = handle && update::download_file(handle, url, path, update::params_t{}, true);
  curl_easy_cleanup(handle);
  curl_global_cleanup();
  return ok ? 0 : 1;
}

using bench::median;
using bench::run_child;
using bench::run_t;
using bench::same_files;
using bench::verdict;
using bench::write_random_file;

int benchmark_main(const std::string& self) {
  fixtures::nginx_server_t nginx;
  if (!bench::start_nginx(nginx, "bench_download")) return 1;
  const bench::work_dir_t work_dir;
  const std::string& work = work_dir.path;
  const std::string source = nginx.root() + "/big.bin";
  const std::string ours = work + "/ours.bin";
  const std::string theirs = work + "/curl.bin";
  const std::string url = nginx.url("/big.bin");
  if (work.empty() || !write_random_file(source, file_bytes)) {
    std::fprintf(stderr, "bench_download: cannot write the 1 GiB file\n");
    return 1;
  }

  // Each run starts with no output file and no dirty data of an earlier run
  // still going to the disk, so neither side pays for the other's writes.
  auto settle = [](const std::string& output) {
    std::filesystem::remove(output);
    sync();
  };
  auto run_ours = [&] {
    settle(ours);
    return run_child({self, "--fetch", url, ours});
  };
  auto run_curl = [&] {
    settle(theirs);
    return run_child({curl_binary, "-s", "-o", theirs, url});
  };
  run_curl();  // warms the server and the page cache for both sides

  std::vector<double> our_times, curl_times;
  double peak_rss = 0, curl_rss = 0;
  bool all_ok = true;
  for (int i = 0; i < pairs; ++i) {
    // Alternate who goes first, so neither always meets a fresher cache.
    run_t a, b;
    if (i % 2 == 0) {
      a = run_ours();
      b = run_curl();
    } else {
      b = run_curl();
      a = run_ours();
    }
    all_ok = all_ok && a.ok && b.ok;
    our_times.push_back(a.seconds);
    curl_times.push_back(b.seconds);
    peak_rss = std::max(peak_rss, a.rss_mib);
    curl_rss = std::max(curl_rss, b.rss_mib);
  }
  const bool content_ok = all_ok && same_files(ours, source);

  // Resume: keep the first half of a complete copy and continue it.
  const size_t before = nginx.requests().size();
  const run_t resume = [&] {
    if (truncate(ours.c_str(), static_cast<off_t>(file_bytes / 2)) != 0) return run_t{};
    sync();
    return run_child({self, "--fetch", url, ours});
  }();
  auto log = nginx.requests(before + 1);
  const std::string wanted_range = "bytes=" + std::to_string(file_bytes / 2) + "-";
  const bool resume_ok = resume.ok && log.size() == before + 1 && log.back().range == wanted_range &&
                         log.back().status == 206 && log.back().body_bytes == file_bytes / 2 &&
                         same_files(ours, source);

  const double ours_median = median(our_times), curl_median = median(curl_times);
  const double ratio = ours_median / curl_median;
  const double mib = static_cast<double>(file_bytes) / (1 << 20);
  std::printf("bench_download: 1 GiB from nginx on loopback, %d alternating pairs\n", pairs);
  std::printf("  %-24s %10s %10s %14s\n", "", "median s", "MiB/s", "peak RSS MiB");
  std::printf("  %-24s %10.3f %10.0f %14.1f\n", "download_file", ours_median, mib / ours_median, peak_rss);
  std::printf("  %-24s %10.3f %10.0f %14.1f\n", "curl -s -o", curl_median, mib / curl_median, curl_rss);
  std::printf("  %-24s %10.3f   limit %.2f  %s\n", "time ours / curl", ratio, time_ratio_limit,
              verdict(ratio <= time_ratio_limit));
  std::printf("  %-24s %10.1f   limit %.0f    %s\n", "peak RSS ours (MiB)", peak_rss, rss_limit_mib,
              verdict(peak_rss <= rss_limit_mib));
  std::printf("  %-24s %10s   bytes equal %s\n", "downloads complete", verdict(all_ok), verdict(content_ok));
  std::printf("  %-24s %10.3f   %s %d %llu bytes  %s\n", "resume second half (s)", resume.seconds,
              log.empty() ? "-" : log.back().range.c_str(), log.empty() ? 0 : log.back().status,
              log.empty() ? 0ull : static_cast<unsigned long long>(log.back().body_bytes), verdict(resume_ok));
  std::printf("  ours:");
  for (double t : our_times) std::printf(" %.3f", t);
  std::printf("   curl:");
  for (double t : curl_times) std::printf(" %.3f", t);
  std::printf("\n");
  return content_ok && resume_ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--fetch") == 0) return fetch(argv[2], argv[3]);
  std::error_code ec;
  return benchmark_main(std::filesystem::read_symlink("/proc/self/exe", ec).string());
}
