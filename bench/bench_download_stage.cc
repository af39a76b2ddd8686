// A whole `corvid-update download` from nginx on loopback, against the floor
// a user would script by hand: `curl -s -o` for each file one after the
// other, then a bare libgcrypt Streebog-256 pass over the files. Two
// workloads, 1 file of 1 GiB and 100 files of 1 MiB, in alternating pairs,
// medians of each side; peak RSS of the host; the status saves, the waits
// for the disk and the files read back for a hash (the description's only,
// when every file is hashed on its way to the disk). Then one file of 256
// MiB at three link speeds (--speeds: only these), against the slower of
// its transfer and its hash, each alone. Exits 1 only when a download is
// wrong, since the timings depend on the load of the machine.
#include <gcrypt.h>

#include <cinttypes>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "bench/bench_support.h"
#include "fixtures/nginx_server.h"
#include "platform/hash_file.h"

namespace {

using bench::median;
using bench::run_child;
using bench::run_t;

constexpr const char* curl_binary = "/usr/bin/curl";
constexpr double rss_limit_mib = 32.0;

struct workload_t {
  const char* name;
  int files;
  uint64_t bytes;
  int pairs;
  double limit;  // our time / floor
};

// The floor's second half: the bare library over each file, nothing else.
int hash_files(int count, char** paths) {
  if (!gcry_check_version(GCRYPT_VERSION)) return 1;
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  std::vector<unsigned char> block(1u << 20);
  for (int i = 0; i < count; ++i) {
    std::unique_ptr<FILE, int (*)(FILE*)> in(std::fopen(paths[i], "rb"), std::fclose);
    gcry_md_hd_t md;
    if (!in || gcry_md_open(&md, GCRY_MD_STRIBOG256, 0) != 0) return 1;
    for (size_t n; (n = std::fread(block.data(), 1, block.size(), in.get())) > 0;) gcry_md_write(md, block.data(), n);
    gcry_md_read(md, GCRY_MD_STRIBOG256);
    gcry_md_close(md);
  }
  return 0;
}

std::string file_name(int i) {
  char name[16];
  std::snprintf(name, sizeof name, "f%03d.bin", i);
  return name;
}

// The files and an update.ini of one rule that lists them with hashes and
// sizes, under nginx's root/dir.
bool publish(const fixtures::nginx_server_t& nginx, const std::string& dir, const workload_t& w) {
  const std::string root = nginx.root() + "/" + dir + "/";
  std::filesystem::create_directories(root);
  std::string files, hashes, sizes;
  for (int i = 0; i < w.files; ++i) {
    std::string hash;
    if (!bench::write_random_file(root + file_name(i), w.bytes, static_cast<uint64_t>(i)) ||
        !HashFileChecker::CalcHash(root + file_name(i), "", hash))
      return false;
    const char* comma = i ? "," : "";
    files += comma + file_name(i);
    hashes += comma + hash;
    sizes += comma + std::to_string(w.bytes);
  }
  return nginx.put_file(dir + "/update.ini", "[corvid]\nversion.1=2\nfile.1=" + files + "\nhash.1=" + hashes +
                                                 "\nfilesize.1=" + sizes + "\nexec.1=true\n");
}

struct stats_t {
  unsigned long long saves = 0, syncs = 0, reads = 0;  // reads: files read back for a hash
};

stats_t read_stats(const std::string& path) {
  std::ifstream in(path);
  stats_t s;
  for (std::string line; std::getline(in, line);)
    if (std::sscanf(line.c_str(), "stats: saves=%llu syncs=%llu reads=%llu", &s.saves, &s.syncs, &s.reads) == 3)
      break;
  return s;
}

// Nothing of an earlier run is still on its way to the disk.
void settle(const std::string& dir) {
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  std::filesystem::create_directories(dir);
  sync();
}

bool run_workload(const fixtures::nginx_server_t& nginx, const std::string& self, const std::string& work,
                  const workload_t& w, const std::string& dir) {
  const std::string url = nginx.url("/" + dir + "/");
  const std::string ours_root = work + "/agent", floor_dir = work + "/floor", err = work + "/host.err";
  auto run_ours = [&] {
    settle(ours_root);
    return run_child({CORVID_BIN_DIR "/corvid-update", "--root", ours_root, "--stats", "download", url}, err);
  };
  auto run_floor = [&] {
    settle(floor_dir);
    run_t total{true, 0, 0};
    std::vector<std::string> hash_argv{self, "--hash"};
    for (int i = 0; i < w.files; ++i) {
      const std::string out = floor_dir + "/" + file_name(i);
      const run_t one = run_child({curl_binary, "-s", "-o", out, url + file_name(i)});
      total.ok = total.ok && one.ok;
      total.seconds += one.seconds;
      hash_argv.push_back(out);
    }
    const run_t hashed = run_child(hash_argv);
    total.ok = total.ok && hashed.ok;
    total.seconds += hashed.seconds;
    return total;
  };
  run_floor();  // warms the server and the page cache for both sides

  std::vector<double> ours, floor;
  double rss = 0;
  bool ok = true;
  stats_t stats;
  for (int i = 0; i < w.pairs; ++i) {
    run_t a, b;
    if (i % 2 == 0) {
      a = run_ours();
      stats = read_stats(err);
      b = run_floor();
    } else {
      b = run_floor();
      a = run_ours();
      stats = read_stats(err);
    }
    ok = ok && a.ok && b.ok;
    ours.push_back(a.seconds);
    floor.push_back(b.seconds);
    rss = std::max(rss, a.rss_mib);
  }
  for (int i = 0; ok && i < w.files; ++i)
    ok = bench::same_files(ours_root + "/var/update/" + file_name(i), nginx.root() + "/" + dir + "/" + file_name(i));

  const double ratio = median(ours) / median(floor);
  std::printf("  %-14s %8.3f %9.3f %7.3f %6.2f %s %7.1f %s %6llu %6llu %9.2f %6llu  %s\n", w.name, median(ours),
              median(floor), ratio, w.limit, bench::verdict(ratio <= w.limit), rss,
              bench::verdict(rss <= rss_limit_mib), stats.saves, stats.syncs,
              stats.saves ? static_cast<double>(stats.syncs) / static_cast<double>(stats.saves) : 0.0, stats.reads,
              ok ? "bytes equal" : "WRONG");
  std::printf("  %-14s ours:", "");
  for (double t : ours) std::printf(" %.3f", t);
  std::printf("  floor:");
  for (double t : floor) std::printf(" %.3f", t);
  std::printf("\n");
  return ok;
}

// One file at a link speed that nginx sets, against the slower of the two
// halves of the floor, each alone: curl to disk at that speed, and the bare
// library over curl's copy in the page cache.
struct speed_t {
  const char* name;
  uint64_t rate;  // bytes a second; 0: as fast as loopback goes
  int runs;
};

bool run_speed(const std::string& self, const std::string& work, const std::string& file, const std::string& hash,
               const speed_t& speed) {
  fixtures::nginx_server_t nginx;
  nginx.limit_rate(speed.rate);
  std::error_code ec;
  if (!bench::start_nginx(nginx, "bench_download_stage")) return false;
  std::filesystem::create_directories(nginx.root() + "/s", ec);
  std::filesystem::create_hard_link(file, nginx.root() + "/s/" + file_name(0), ec);
  if (ec || !nginx.put_file("s/update.ini", "[corvid]\nversion.1=2\nfile.1=" + file_name(0) + "\nhash.1=" + hash +
                                                "\nfilesize.1=" + std::to_string(std::filesystem::file_size(file)) +
                                                "\nexec.1=true\n")) {
    std::fprintf(stderr, "bench_download_stage: cannot publish the file at %s\n", speed.name);
    return false;
  }
  const std::string url = nginx.url("/s/"), ours_root = work + "/agent", floor_dir = work + "/floor";
  const std::string copy = floor_dir + "/" + file_name(0);
  unsigned long long reads = 0;
  auto run_ours = [&] {
    settle(ours_root);
    const run_t run = run_child({CORVID_BIN_DIR "/corvid-update", "--root", ours_root, "--stats", "download", url},
                                work + "/host.err");
    reads = std::max(reads, read_stats(work + "/host.err").reads);
    return run;
  };
  auto run_transfer = [&] {
    settle(floor_dir);
    return run_child({curl_binary, "-s", "-o", copy, url + file_name(0)});
  };
  auto run_hash = [&] { return run_child({self, "--hash", copy}); };
  run_transfer();  // warms the server and leaves the copy that the hash reads
  std::vector<double> ours, transfer, hashed;
  double rss = 0;
  bool ok = true;
  for (int i = 0; i < speed.runs; ++i) {
    // The hash reads the copy of the transfer before it in each order.
    const run_t a = i % 2 == 0 ? run_ours() : run_t{};
    const run_t t = run_transfer(), h = run_hash();
    const run_t b = i % 2 == 0 ? a : run_ours();
    ok = ok && b.ok && t.ok && h.ok;
    ours.push_back(b.seconds);
    transfer.push_back(t.seconds);
    hashed.push_back(h.seconds);
    rss = std::max(rss, b.rss_mib);
  }
  ok = ok && bench::same_files(ours_root + "/var/update/" + file_name(0), file);
  const double slower = std::max(median(transfer), median(hashed)), ratio = median(ours) / slower;
  std::printf("  %-10s %8.3f %10.3f %8.3f %7.3f %s %7.1f %s %6llu  %s\n", speed.name, median(ours),
              median(transfer), median(hashed), ratio, bench::verdict(ratio <= 1.10), rss,
              bench::verdict(rss <= rss_limit_mib), reads, ok ? "bytes equal" : "WRONG");
  std::printf("  %-10s ours:", "");
  for (double t : ours) std::printf(" %.3f", t);
  std::printf("  transfer:");
  for (double t : transfer) std::printf(" %.3f", t);
  std::printf("  hash:");
  for (double t : hashed) std::printf(" %.3f", t);
  std::printf("\n");
  return ok;
}

bool run_speeds(const std::string& self, const std::string& work) {
  const std::string file = work + "/speed.bin";
  std::string hash;
  if (!bench::write_random_file(file, uint64_t{256} << 20, 256) || !HashFileChecker::CalcHash(file, "", hash)) {
    std::fprintf(stderr, "bench_download_stage: cannot write the 256 MiB file\n");
    return false;
  }
  const speed_t speeds[] = {{"unlimited", 0, 5}, {"100 MB/s", 100000000, 3}, {"20 MB/s", 20000000, 3}};
  std::printf("\n1 x 256 MiB at link speeds set by nginx limit_rate: ours against the slower of the transfer\n"
              "alone (curl -s -o) and the hash alone (bare libgcrypt over curl's copy, page cache); medians\n");
  std::printf("  %-10s %8s %10s %8s %7s %s %12s %6s\n", "speed", "ours s", "transfer s", "hash s", "ratio",
              "(<= 1.10)", "RSS MiB", "reads");
  bool ok = true;
  for (const auto& speed : speeds) ok = run_speed(self, work, file, hash, speed) && ok;
  return ok;
}

int benchmark_main(const std::string& self, bool speeds_only) {
  const bench::work_dir_t work_dir;
  const std::string& work = work_dir.path;
  if (speeds_only) return run_speeds(self, work) ? 0 : 1;
  fixtures::nginx_server_t nginx;
  if (!bench::start_nginx(nginx, "bench_download_stage")) return 1;
  const workload_t workloads[] = {
      {"1 x 1 GiB", 1, uint64_t{1} << 30, 3, 1.10},
      {"100 x 1 MiB", 100, uint64_t{1} << 20, 5, 1.25},
  };
  std::printf("bench_download_stage: corvid-update download from nginx on loopback, against curl -s -o per file\n"
              "then a bare libgcrypt Streebog-256 pass; medians of alternating pairs\n");
  std::printf("  %-14s %8s %9s %7s %11s %12s %6s %6s %9s %6s\n", "workload", "ours s", "floor s", "ratio", "limit",
              "RSS MiB", "saves", "syncs", "syncs/save", "reads");
  bool ok = true;
  int index = 0;
  for (const auto& w : workloads) {
    const std::string dir = "w" + std::to_string(index++);
    if (!publish(nginx, dir, w)) {
      std::fprintf(stderr, "bench_download_stage: cannot write the %s workload\n", w.name);
      return 1;
    }
    ok = run_workload(nginx, self, work, w, dir) && ok;
    std::error_code ignored;
    std::filesystem::remove_all(nginx.root() + "/" + dir, ignored);
  }
  ok = run_speeds(self, work) && ok;
  return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 2 && std::strcmp(argv[1], "--hash") == 0) return hash_files(argc - 2, argv + 2);
  std::error_code ec;
  const bool speeds_only = argc >= 2 && std::strcmp(argv[1], "--speeds") == 0;
  return benchmark_main(std::filesystem::read_symlink("/proc/self/exe", ec).string(), speeds_only);
}
