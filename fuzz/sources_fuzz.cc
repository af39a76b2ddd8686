// Fuzz target for the sources file and the share of a staged rollout.
// Besides crashes and sanitizer findings it checks properties that a wrong
// reader would break:
//  - every source read has a scheme the transfers take and no blank or
//    control byte, and the sources written one a line read back the same;
//  - a refusal names a line of the text;
//  - an accepted share is at most 100 %, and written back reads the same;
//  - a machine's place is below the number of places.
#include <cstdint>
#include <cstdio>
#include <list>
#include <string>
#include <string_view>

#include "description/rollout.h"
#include "fuzz/fuzz_support.h"
#include "support/sources_file.h"

namespace {

using fuzz::check;

void check_sources(std::string_view text) {
  std::list<std::string> sources, again;
  std::string reason, joined;
  if (!update::read_sources(text, sources, reason)) {
    const unsigned line = static_cast<unsigned>(std::strtoul(reason.c_str() + 5, nullptr, 10));
    check(reason.rfind("line ", 0) == 0 && line >= 1, "a refusal names its line");
    return;
  }
  for (const auto& uri : sources) {
    check(uri.find("://") != std::string::npos, "a source has a scheme");
    for (unsigned char c : uri) check(c > ' ' && c != 0x7f, "a source has no blank or control byte");
    joined += uri + "\n";
  }
  check(update::read_sources(joined, again, reason) && again == sources, "sources read back the same");
}

void check_share(std::string_view text) {
  unsigned share = 0, again = 0;
  if (!update::parse_rollout_share(text, share)) return;
  check(share <= update::rollout_places, "a share is at most 100 %");
  char written[16];
  std::snprintf(written, sizeof written, "%u.%02u%%", share / 100, share % 100);
  check(update::parse_rollout_share(written, again) && again == share, "a share reads back the same");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check_sources(text);
  check_share(text.substr(0, 12));
  const size_t cut = text.size() / 3;
  check(update::rollout_place(text.substr(0, cut), text.substr(cut, cut), text.substr(2 * cut)) < update::rollout_places,
        "a place is below the number of places");
  return 0;
}
