// Delta updates on real security updates: the two newest versions of
// libcrypto.so.3 (libssl3) and libcurl.so.4.8.0 (libcurl4) that the package
// lists show, fetched with apt-get download (a generated pair when none can
// be had, and the table says so). For each pair: the patch of Debian's
// bsdiff (the anchor) against ours, and an agent that holds the old version
// updating from nginx at 20 MB/s (limit_rate), by the patch and by the whole
// file, released with corvid-update-sign, the files' hashes in the default
// type (GOST R 34.11-2012) and in SHA-256. Prints bytes fetched, the times of
// the update (the module's run from its log, process start and exit left
// out; medians of alternating runs, and net of a run that fetches nothing),
// the time to make the patch and the agent's peak RSS, with the floor of the
// patched update's time (one pass of the file's hash, which checks the
// result) and the machine's load around the runs. Goals: bytes at most 1.1
// times bsdiff's patch, the update in at most 0.2 of the whole file's time,
// peak RSS at most the file's size plus 32 MiB. Exits 1 only when an update
// ends with the wrong bytes.
//
// Usage: bench_delta [--generated] [--runs N]
#include <chrono>
#include <cinttypes>
#include <filesystem>
#include <random>
#include <sstream>

#include "bench/bench_support.h"
#include "fixtures/nginx_server.h"
#include "platform/hash_file.h"
#include "sign/patch_make.h"

namespace {

using bench::median;
using bench::run_child;
using bench::run_t;
namespace fs = std::filesystem;

constexpr uint64_t link_rate = 20000000;

struct pair_t {
  std::string name, old_path, new_path, versions;
};

// A command's standard output; empty when it fails.
std::string output_of(const std::string& command) {
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  std::string out;
  char buffer[4096];
  for (size_t n; pipe && (n = std::fread(buffer, 1, sizeof buffer, pipe.get())) > 0;) out.append(buffer, n);
  return out;
}

// The two newest versions of package the lists know, newest first.
std::vector<std::string> newest_versions(const std::string& package) {
  std::vector<std::string> versions;
  std::istringstream lines(output_of("apt-cache madison " + package + " 2>/dev/null"));
  for (std::string line; std::getline(lines, line);) {
    const size_t a = line.find('|'), b = line.find('|', a + 1);
    if (a == std::string::npos || b == std::string::npos) continue;
    std::string version = line.substr(a + 1, b - a - 1);
    version.erase(0, version.find_first_not_of(' '));
    version.erase(version.find_last_not_of(' ') + 1);
    if (std::find(versions.begin(), versions.end(), version) == versions.end()) versions.push_back(version);
  }
  std::sort(versions.begin(), versions.end(), [](const std::string& x, const std::string& y) {
    return std::system(("dpkg --compare-versions '" + x + "' gt '" + y + "'").c_str()) == 0;
  });
  if (versions.size() > 2) versions.resize(2);
  return versions;
}

// The library of package at version, unpacked under cache; empty on failure.
std::string fetch_library(const std::string& cache, const std::string& package, const std::string& version,
                          const std::string& library) {
  const std::string dir = cache + "/" + package + "_" + version;
  const std::string unpacked = dir + "/x/usr/lib/x86_64-linux-gnu/" + library;
  if (fs::exists(unpacked)) return unpacked;
  fs::create_directories(dir);
  const std::string quoted = "'" + package + "=" + version + "'";
  if (std::system(("cd '" + dir + "' && apt-get download -q " + quoted + " >/dev/null 2>&1 && dpkg-deb -x " + package +
                   "_*.deb x")
                      .c_str()) != 0)
    return "";
  return fs::exists(unpacked) ? unpacked : "";
}

// Code-like bytes, and a next version as a fix makes it: new code in the
// middle, a function gone, and addresses after them moved.
pair_t generated_pair(const std::string& dir, size_t size) {
  std::mt19937_64 random(29);
  std::string old_bytes(size, '\0'), added(40 << 10, '\0');
  for (size_t i = 0; i < size; i += 8) {
    const uint64_t word = random() & 0x00FF00FF00FFFFFFull;
    std::memcpy(&old_bytes[i], &word, std::min<size_t>(8, size - i));
  }
  for (auto& c : added) c = static_cast<char>(random());
  std::string new_bytes = std::string(old_bytes).insert(size / 3, added).erase(size / 2, 10 << 10);
  for (size_t i = size / 3; i + 4 < new_bytes.size(); i += 1 + random() % 16384)
    new_bytes[i] = static_cast<char>(new_bytes[i] + 0x40);
  fixtures::write_file(dir + "/gen.old", old_bytes);
  fixtures::write_file(dir + "/gen.new", new_bytes);
  return {"generated", dir + "/gen.old", dir + "/gen.new", "generated pair"};
}

std::vector<pair_t> real_pairs(const std::string& cache) {
  std::vector<pair_t> pairs;
  const std::pair<const char*, const char*> wanted[] = {{"libssl3", "libcrypto.so.3"},
                                                        {"libcurl4", "libcurl.so.4.8.0"}};
  for (const auto& [package, library] : wanted) {
    const auto versions = newest_versions(package);
    if (versions.size() < 2) continue;
    const std::string old_path = fetch_library(cache, package, versions[1], library),
                      new_path = fetch_library(cache, package, versions[0], library);
    if (!old_path.empty() && !new_path.empty())
      pairs.push_back({library, old_path, new_path, std::string(package) + " " + versions[1] + " -> " + versions[0]});
  }
  return pairs;
}

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

uint64_t bytes_since(const fixtures::nginx_server_t& nginx, size_t& seen) {
  const auto requests = nginx.requests(seen + 1);
  uint64_t bytes = 0;
  for (size_t i = seen; i < requests.size(); ++i) bytes += requests[i].body_bytes;
  seen = requests.size();
  return bytes;
}

std::string sign_binary() { return CORVID_BIN_DIR "/corvid-update-sign"; }

// Seconds of the last run in an agent's log, from its start to its end.
double run_seconds(const std::string& log_path) {
  std::istringstream lines(fixtures::read_file(log_path));
  double start = 0, end = 0;
  for (std::string line; std::getline(lines, line);) {
    int h = 0, m = 0;
    double s = 0;
    if (line.size() < 24 || std::sscanf(line.c_str() + 11, "%d:%d:%lfZ", &h, &m, &s) != 3) continue;
    const double at = h * 3600 + m * 60 + s;
    if (line.find("\tstart\tprocessing command") != std::string::npos) start = at;
    if (line.find("\tdone\tcommand") != std::string::npos) end = at;
  }
  return end - start;
}

// One release directory under nginx: the file as "lib.so", an update.ini of
// that version, released (with patches from previous, if given) and signed.
bool publish(const fixtures::nginx_server_t& nginx, const std::string& work, const std::string& dir,
             const std::string& file, const std::string& version, const std::string& previous,
             const std::string& type) {
  const std::string root = nginx.root() + "/" + dir;
  fs::create_directories(root);
  std::error_code ec;
  fs::copy_file(file, root + "/lib.so", fs::copy_options::overwrite_existing, ec);
  if (ec || !nginx.put_file(dir + "/update.ini", "[corvid]\nversion.1=" + version + "\nfile.1=lib.so\nhash.1=" + type +
                                                     "\nexec.1=sh -c \"echo " + version +
                                                     " >$update_path/lib.so.version\"\nexec_wait.1=1\n"))
    return false;
  std::vector<std::string> argv{sign_binary(), "release", "--key", work + "/k.key", "--serial", version,
                                "--expires",   "2",       root};
  if (!previous.empty()) argv.push_back(nginx.root() + "/" + previous);
  return run_child(argv).ok;
}

struct measured_t {
  uint64_t bsdiff = 0, ours = 0, fetched_patch = 0, fetched_whole = 0;
  double bsdiff_s = 0, make_s = 0, patch_s = 0, whole_s = 0, idle_s = 0, rss = 0, idle_rss = 0, hash_s = 0;
  bool ok = true;
  std::string runs;  // every run's seconds
  std::string load;  // the load average before and after the runs
};

// The system's load average over the last minute, as uptime shows it.
std::string load_average() {
  std::string text = fixtures::read_file("/proc/loadavg");
  return text.substr(0, text.find(' '));
}

// One pass of the file's hash of type over bytes already in memory: the
// patched update checks its result with it, so no update by patch is faster.
double hash_seconds(const std::string& bytes, const std::string& type, int runs) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    const auto start = std::chrono::steady_clock::now();
    update::platform::running_hash_t hash(type);
    hash.add(bytes.data(), bytes.size());
    hash.result();
    times.push_back(seconds_since(start));
  }
  return median(times);
}

// The anchor's patch and ours, their sizes and the time to make them.
void make_patches(const pair_t& pair, const std::string& work, measured_t& m) {
  const std::string bsdiff_patch = work + "/bsdiff.patch", our_patch = work + "/ours.patch";
  const run_t anchor = run_child({"/usr/bin/bsdiff", pair.old_path, pair.new_path, bsdiff_patch});
  m.bsdiff = anchor.ok ? fs::file_size(bsdiff_patch) : 0;
  m.bsdiff_s = anchor.seconds;
  std::string error;
  const auto start = std::chrono::steady_clock::now();
  m.ok = update::make_patch_file(pair.old_path, pair.new_path, our_patch, error);
  m.make_s = seconds_since(start);
  if (!m.ok) std::fprintf(stderr, "bench_delta: %s\n", error.c_str());
  m.ours = m.ok ? fs::file_size(our_patch) : 0;
}

// The updates of an agent holding the old version, the files' hashes of type.
void update_agents(const pair_t& pair, const std::string& work, int runs, const std::string& type, measured_t& m) {
  fixtures::nginx_server_t nginx;
  nginx.limit_rate(link_rate);
  if (!bench::start_nginx(nginx, "bench_delta") || !publish(nginx, work, "v1", pair.old_path, "1", "", type) ||
      !publish(nginx, work, "v2", pair.new_path, "2", "v1", type) ||
      !publish(nginx, work, "whole", pair.new_path, "2", "", type)) {
    std::fprintf(stderr, "bench_delta: cannot publish %s\n", pair.name.c_str());
    m.ok = false;
    return;
  }
  // An agent that trusts the key and has installed version 1.
  const std::string base = work + "/base", agent = work + "/agent";
  fs::remove_all(base);
  fs::create_directories(base + "/etc/update-keys");
  fs::copy_file(work + "/k.pub", base + "/etc/update-keys/k.pub");
  const std::string host = CORVID_BIN_DIR "/corvid-update";
  m.ok = run_child({host, "--root", base, "--answer", "yes", "install", nginx.url("/v1/")}, work + "/host.err").ok;
  size_t seen = 0;
  bytes_since(nginx, seen);
  const std::string load = load_average();
  // A fresh copy of that agent runs one download; the time is its module's run.
  auto update_from = [&](const char* dir, uint64_t& fetched) {
    fs::remove_all(agent);
    fs::copy(base, agent, fs::copy_options::recursive);
    sync();
    run_t run = run_child({host, "--root", agent, "download", nginx.url(dir)}, work + "/host.err");
    run.seconds = run_seconds(agent + "/log/corvid_update.log");
    fetched = bytes_since(nginx, seen);
    return run;
  };
  struct side_t {
    const char* dir;
    uint64_t fetched = 0;
    std::vector<double> times{};
    double rss = 0;
  } sides[] = {{"/v2/"}, {"/whole/"}, {"/v1/"}};  // by patch, whole, and nothing to fetch
  for (int i = 0; i < runs; ++i)
    for (int k = 0; k < 3; ++k) {
      side_t& side = sides[(k + i) % 3];
      const run_t run = update_from(side.dir, side.fetched);
      side.times.push_back(run.seconds);
      side.rss = std::max(side.rss, run.rss_mib);
      if (&side != &sides[2]) m.ok = m.ok && run.ok && bench::same_files(agent + "/var/update/lib.so", pair.new_path);
    }
  m.load = load + " before, " + load_average() + " after";
  m.fetched_patch = sides[0].fetched, m.fetched_whole = sides[1].fetched;
  m.patch_s = median(sides[0].times), m.whole_s = median(sides[1].times), m.idle_s = median(sides[2].times);
  m.rss = sides[0].rss, m.idle_rss = sides[2].rss;
  for (const side_t& side : sides) {
    m.runs += std::string(m.runs.empty() ? "" : "  ") + side.dir + ":";
    for (double t : side.times) m.runs += " " + std::to_string(t).substr(0, 5);
  }
}

}  // namespace

int main(int argc, char** argv) {
  bool generated = false;
  int runs = 5;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--generated") == 0) generated = true;
    if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) runs = std::max(1, std::atoi(argv[++i]));
  }
  const bench::work_dir_t work_dir;
  const std::string& work = work_dir.path;
  if (!run_child({sign_binary(), "keygen", "--type", "ed25519", work + "/k"}).ok) return 1;
  std::vector<pair_t> pairs;
  if (!generated) pairs = real_pairs(CORVID_BIN_DIR "/../bench-delta-cache");
  if (pairs.empty()) {
    std::printf("bench_delta: no real pair could be had (apt-cache madison, apt-get download); a generated one\n");
    pairs.push_back(generated_pair(work, 4u << 20));
  }
  std::printf("bench_delta: an agent holding the old version updates from nginx at %" PRIu64
              " MB/s, by the patch and by the whole file; medians of %d alternating runs\n",
              link_rate / 1000000, runs);
  bool ok = true;
  for (const auto& pair : pairs) {
    const uint64_t size = fs::file_size(pair.new_path);
    measured_t made;
    make_patches(pair, work, made);
    ok = ok && made.ok;
    std::printf("\n  %s (%s), %" PRIu64 " bytes\n", pair.name.c_str(), pair.versions.c_str(), size);
    const std::string new_bytes = fixtures::read_file(pair.new_path);
    std::printf("    patch: bsdiff %" PRIu64 " bytes (%.2f s), ours %" PRIu64
                " bytes (%.2f s to make), %.3f of bsdiff\n",
                made.bsdiff, made.bsdiff_s, made.ours, made.make_s,
                static_cast<double>(made.ours) / static_cast<double>(made.bsdiff));
    for (const char* type : {"#GOST3411_256_2012:", "#SHA256:"}) {
      measured_t m = made;
      update_agents(pair, work, runs, type, m);
      m.hash_s = hash_seconds(new_bytes, type, runs);
      ok = ok && m.ok;
      const double bytes_ratio = static_cast<double>(m.fetched_patch) / static_cast<double>(m.bsdiff);
      const double time_ratio = m.patch_s / m.whole_s, net_ratio = (m.patch_s - m.idle_s) / (m.whole_s - m.idle_s);
      const double rss_limit = static_cast<double>(size) / (1 << 20) + 32;
      std::printf("    hashes %s\n", type);
      std::printf("      fetched: by patch %" PRIu64 " bytes, whole %" PRIu64 "; %.3f of bsdiff's patch (<= 1.10) %s\n",
                  m.fetched_patch, m.fetched_whole, bytes_ratio, bench::verdict(bytes_ratio <= 1.10));
      std::printf("      update at 20 MB/s: by patch %.3f s, whole %.3f s (%.3f), nothing to fetch %.3f s\n", m.patch_s,
                  m.whole_s, time_ratio, m.idle_s);
      std::printf("      net of the run that fetches nothing: %.3f (<= 0.20) %s\n", net_ratio,
                  bench::verdict(net_ratio <= 0.20));
      std::printf("      floor: the file's hash alone %.3f s (%.3f of the whole file's time), the patch's transfer %.3f s;"
                  " load average %s\n",
                  m.hash_s, m.hash_s / m.whole_s, static_cast<double>(m.fetched_patch) / link_rate, m.load.c_str());
      std::printf("      peak RSS by patch %.1f MiB (<= %.1f) %s, of a run that fetches nothing %.1f MiB   %s\n", m.rss,
                  rss_limit, bench::verdict(m.rss <= rss_limit), m.idle_rss, m.ok ? "bytes equal" : "WRONG");
      std::printf("      %s\n", m.runs.c_str());
    }
  }
  return ok ? 0 : 1;
}
