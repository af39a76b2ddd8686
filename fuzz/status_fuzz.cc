// Fuzz target for the status file's reader, fed the way start-up feeds it.
// Besides crashes and sanitizer findings it checks properties that a wrong
// reader would break:
//  - a corrupted file leaves nothing but the failure;
//  - what was read keeps the record's invariants (states in range, sizes
//    that fit the size rule, only decorated hashes under non-empty names);
//  - what was read, written and read again renders the same, unless a field
//    the writer puts out unescaped holds markup (kept so on purpose).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "planning/hash_cache.h"
#include "status/status.h"
#include "status/status_file.h"

namespace {

void check(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "property broken: %s\n", what);
  std::abort();
}

void read(update::status_t& status, const std::string& text) {
  std::istringstream in(text);
  update::read_status(status, in, "status.xml");
}

bool corrupted(const update::status_t& status) {
  return !status.messages.empty() && status.messages.front().text == "Update status file corrupted" &&
         status.result == update::status_error;
}

void check_invariants(const update::status_t& status) {
  for (const auto& m : status.messages) check(m.state >= 0 && m.state <= 3, "a message state is a stage");
  for (const auto& f : status.files) {
    check(f.state >= 0 && f.state <= 6, "a file state is in range");
    check(f.type == 0 || f.type == 1, "a type is 0 or 1");
    check((f.download_size >> 63) == 0 && (f.total_size >> 63) == 0, "a size fits the size rule");
  }
  for (const auto& [file, list] : status.hashes.entries) {
    check(!file.empty(), "a hash belongs to a file");
    for (const auto& hash : list) check(update::hash_prefix_length(hash) > 0, "a kept hash is decorated");
  }
}

// The writer puts these out as they stand; markup in them, or a carriage
// return that the reader turns into a line feed, cannot come back whole.
bool writes_back_whole(const update::status_t& status) {
  auto plain = [](const std::string& v) { return v.find_first_of("\"<&\r") == std::string::npos; };
  if (!plain(status.cmd) || !plain(status.cmdid) || !plain(status.start_time)) return false;
  for (const auto& m : status.messages)
    if (m.uri.find('\r') != std::string::npos || m.text.find('\r') != std::string::npos) return false;
  for (const auto& f : status.files) {
    if (!plain(f.current_version) || !plain(f.update_version) || !plain(f.download_hash) ||
        !plain(f.installed_time) || !plain(f.uptodate_time))
      return false;
    if (f.name.find('\r') != std::string::npos || f.uri.find('\r') != std::string::npos ||
        f.error.find('\r') != std::string::npos)
      return false;
  }
  for (const auto& [file, list] : status.hashes.entries) {
    if (file.find('\r') != std::string::npos) return false;
    for (const auto& hash : list)
      if (hash.find('\r') != std::string::npos) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  update::status_t first;
  std::lock_guard<std::recursive_mutex> hold(first.lock);
  read(first, std::string(reinterpret_cast<const char*>(data), size));
  if (corrupted(first)) {
    check(first.messages.size() == 1 && first.files.empty() && first.hashes.entries.empty(),
          "a corrupted file leaves the failure alone");
    return 0;
  }
  check_invariants(first);
  if (!writes_back_whole(first)) return 0;

  first.render_xml();
  update::status_t second;
  std::lock_guard<std::recursive_mutex> hold_second(second.lock);
  read(second, first.xml);
  check(!corrupted(second), "what the writer wrote reads back");
  second.render_xml();
  check(second.xml == first.xml, "read, written and read again renders the same");
  return 0;
}
