// Loading a file-section description whose conditions look at large files:
// 1000 file sections with conditions on 100 distinct files of 1 MiB. Each
// file must be hashed once per run however many sections ask, and the whole
// load must take well under a second. Prints the median load time of a few
// runs, each with a fresh hash cache as a run has, and the hash count.
//
// Usage: bench_load [--runs N]
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "agent/agent.h"
#include "description/inivars.h"
#include "description/loader.h"
#include "facts/hash_cache.h"
#include "platform/hash_file.h"
#include "platform/local_params.h"
#include "records/update_ini.h"
#include "status/status.h"

namespace {

constexpr size_t mib = size_t{1} << 20;
constexpr int file_count = 100;
constexpr int section_count = 1000;

void write_file(const std::string& path, const std::string& bytes) {
  std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(path.c_str(), "wb"), std::fclose);
  if (!out || std::fwrite(bytes.data(), 1, bytes.size(), out.get()) != bytes.size()) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

// Distinct, incompressible contents (xorshift64 from the file's number).
std::string file_bytes(uint64_t seed) {
  std::string bytes(mib, '\0');
  uint64_t x = seed * 0x9e3779b97f4a7c15ull | 1;
  for (size_t i = 0; i < bytes.size(); i += 8) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    std::memcpy(&bytes[i], &x, 8);
  }
  return bytes;
}

// Two sections per installed file: the first asks for a version that the
// hash-to-version table does not give, the second for the file's hash. So
// both kinds of condition hash every one of the 100 files, ten times over.
std::string description(const std::string& dir, const std::vector<std::string>& hashes) {
  std::string text = "[corvid]\n";
  for (int f = 0; f < file_count; ++f)
    text += "global.big" + std::to_string(f) + "=" + dir + "big" + std::to_string(f) + "\n";
  for (int s = 0; s < section_count; ++s) {
    const int f = s / 2 % file_count;
    const std::string big = "big" + std::to_string(f);
    text += "[corvid.file=out" + std::to_string(s / 2) + "]\n";
    text += s % 2 == 0 ? "apply_if.version_of." + big + "=9.0-\n" : "apply_if.hash_of." + big + "=" + hashes[f] + "\n";
    text += "update_version=$(version_of." + big + ")\n";
    text += "download_hash=#GOST3411_256_2012:00\nexec=install $(download_file)\n";
  }
  for (int f = 0; f < file_count; ++f)
    text += "[corvid.hash_to_version.big" + std::to_string(f) + "]\nhash." + hashes[f].substr(19) + "=1.0\n";
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  int runs = 5;
  for (int i = 1; i + 1 < argc; ++i)
    if (std::strcmp(argv[i], "--runs") == 0) runs = std::max(1, std::atoi(argv[++i]));

  std::string dir = (std::filesystem::temp_directory_path() / "corvid-bench-load-XXXXXX").string();
  if (!mkdtemp(dir.data())) return 1;
  dir += "/";
  agent::configure_paths(agent::paths_under(dir + "agent"));
  update::status.save_enabled = false;

  std::vector<std::string> hashes(file_count);
  for (int f = 0; f < file_count; ++f) {
    const std::string path = dir + "big" + std::to_string(f);
    write_file(path, file_bytes(f + 1));
    HashFileChecker::CalcHash(path, "", hashes[f]);
  }
  write_file(dir + "corvid_update.ini", description(dir, hashes));

  // A run starts with an empty cache; with a filled one the figure is the
  // reading and evaluating alone.
  std::vector<double> times, warm_times;
  size_t hash_count = 0, rules = 0;
  bool ok = true;
  for (int r = 0; r < runs; ++r) {
    update::hash_cache_t cache;
    for (std::vector<double>* figures : {&times, &warm_times}) {
      update::update_ini_t ini;
      ini.uri = "http://source/";
      update::inivars_t vars;
      vars.add("agent_version", "1.0.0");
      const auto start = std::chrono::steady_clock::now();
      ok = update::load_update_ini(ini, vars, cache, dir, "corvid_update.ini", 0) && ok;
      figures->push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
      rules = ini.rules.size();
      if (figures == &times)
        for (const auto& [file, list] : cache.entries) hash_count += list.size();
    }
  }
  hash_count /= runs;
  std::sort(times.begin(), times.end());
  std::sort(warm_times.begin(), warm_times.end());
  std::printf("load of %d file sections with conditions on %d files of 1 MiB: median %.3f s of %d runs "
              "(min %.3f s, max %.3f s); with every hash known already: %.3f s\n",
              section_count, file_count, times[times.size() / 2], runs, times.front(), times.back(),
              warm_times[warm_times.size() / 2]);
  std::printf("hashes computed per run: %zu (target %d), rules: %zu, loaded: %s\n", hash_count, file_count, rules,
              ok ? "yes" : "NO");
  std::filesystem::remove_all(dir);
  return ok && hash_count == file_count && rules == section_count / 2 ? 0 : 1;
}
