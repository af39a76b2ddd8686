// What the end-to-end benchmarks share: a child process timed by wait4 with
// its peak RSS, incompressible test files, and medians.
#pragma once
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "fixtures/nginx_server.h"

namespace bench {

struct run_t {
  bool ok = false;
  double seconds = 0;
  double rss_mib = 0;
};

// argv[0] is a full path. Standard error goes to stderr_path when given.
inline run_t run_child(const std::vector<std::string>& argv, const std::string& stderr_path = "") {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  run_t run;
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    if (!stderr_path.empty()) {
      const int err = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(err, STDERR_FILENO);
    }
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid < 0) return run;
  int wstatus = 0;
  rusage usage{};
  if (wait4(pid, &wstatus, 0, &usage) != pid) return run;
  run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.rss_mib = static_cast<double>(usage.ru_maxrss) / 1024.0;
  run.ok = WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0;
  return run;
}

// splitmix64 from seed: fast, and random enough that nothing on the way
// compresses it.
inline bool write_random_file(const std::string& path, uint64_t bytes, uint64_t seed = 0) {
  std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!out) return false;
  std::vector<uint64_t> block(std::min<uint64_t>(4u << 20, bytes) / sizeof(uint64_t));
  uint64_t state = 0x9e3779b97f4a7c15ull ^ seed;
  for (uint64_t done = 0; done < bytes; done += block.size() * sizeof(uint64_t)) {
    for (auto& word : block) {
      uint64_t z = (state += 0x9e3779b97f4a7c15ull);
      z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
      z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
      word = z ^ (z >> 31);
    }
    if (std::fwrite(block.data(), sizeof(uint64_t), block.size(), out.get()) != block.size()) return false;
  }
  return std::fflush(out.get()) == 0;
}

inline bool same_files(const std::string& a, const std::string& b) {
  std::unique_ptr<FILE, int (*)(FILE*)> fa(std::fopen(a.c_str(), "rb"), std::fclose);
  std::unique_ptr<FILE, int (*)(FILE*)> fb(std::fopen(b.c_str(), "rb"), std::fclose);
  if (!fa || !fb) return false;
  std::vector<char> ba(4u << 20), bb(4u << 20);
  for (;;) {
    const size_t na = std::fread(ba.data(), 1, ba.size(), fa.get());
    const size_t nb = std::fread(bb.data(), 1, bb.size(), fb.get());
    if (na != nb || std::memcmp(ba.data(), bb.data(), na) != 0) return false;
    if (na == 0) return true;
  }
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

inline const char* verdict(bool pass) { return pass ? "PASS" : "FAIL"; }

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes; empty path on failure.
struct work_dir_t {
  std::string path = fixtures::make_temp_dir("corvid-bench-");
  work_dir_t() = default;
  work_dir_t(const work_dir_t&) = delete;
  work_dir_t& operator=(const work_dir_t&) = delete;
  ~work_dir_t() {
    std::error_code ignored;
    if (!path.empty()) std::filesystem::remove_all(path, ignored);
  }
};

// Starts nginx, telling why it could not under the benchmark's name.
inline bool start_nginx(fixtures::nginx_server_t& nginx, const char* name) {
  std::string error;
  if (nginx.start(error)) return true;
  std::fprintf(stderr, "%s: nginx: %s\n", name, error.c_str());
  return false;
}

}  // namespace bench
