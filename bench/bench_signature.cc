// What the signature check adds to a source: one update.ini.sig read, one
// Streebog-256 hash of update.ini and one verification, as check_signature
// does them, for each example source's update.ini and both kinds of key.
// Target: well under a millisecond per source.
//
// Usage: bench_signature [Google Benchmark options]
#include <benchmark/benchmark.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/key_file.h"
#include "support/signature_file.h"

namespace {

std::string read_example(const std::string& name) {
  std::ifstream in(CORVID_SOURCE_DIR "/examples/" + name + "/update.ini", std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void check_source(benchmark::State& state, update::key_type_t type, const std::string& ini) {
  update::secret_key_t key;
  std::string signature;
  const update::packed_time_t now = update::packed_now();
  if (!update::generate_key(type, key) ||
      !update::sign_description(key, ini, 1, update::packed_from_time(update::packed_to_time(now) + 86400), signature)) {
    state.SkipWithError("cannot sign");
    return;
  }
  const std::vector<update::trusted_key_t> trusted{{"release.pub", update::key_id(key.public_key), key.public_key}};
  for (auto _ : state) {
    const update::signature_check_t check = update::check_signature(signature, ini, trusted, now, 1);
    if (!check.ok) {
      state.SkipWithError(check.reason.c_str());
      return;
    }
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * ini.size()));
}

}  // namespace

int main(int argc, char** argv) {
  for (const char* source : {"agent", "repo", "sections"}) {
    const std::string ini = read_example(source);
    if (ini.empty()) {
      std::fprintf(stderr, "bench_signature: cannot read examples/%s/update.ini\n", source);
      return 1;
    }
    for (auto type : {update::key_type_t::ed25519, update::key_type_t::gost2012_256})
      benchmark::RegisterBenchmark(
          (std::string("check/") + update::key_type_name(type) + "/" + source + "/" + std::to_string(ini.size()) + "B")
              .c_str(),
          check_source, type, ini)
          ->Unit(benchmark::kMicrosecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
