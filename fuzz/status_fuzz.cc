// Fuzz target for the status file's reader, fed the way start-up feeds it.
// Besides crashes and sanitizer findings it checks properties that a wrong
// reader would break:
//  - a corrupted file leaves nothing but the failure;
//  - what was read keeps the record's invariants (states in range, sizes
//    that fit the size rule, only decorated hashes under non-empty names);
//  - what was read, written and read again renders the same;
//  - a record made from the same bytes, written and read, comes back with
//    every stored field, as far as the file keeps it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>

#include "fuzz/fuzz_support.h"
#include "facts/hash_cache.h"
#include "status/status.h"
#include "status/status_file.h"
#include "support/xml_text.h"

namespace {

using fuzz::check;

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
    check((f.download_size >> 63) == 0 && (f.total_size >> 63) == 0 && (f.base_size >> 63) == 0,
          "a size fits the size rule");
  }
  for (const auto& [file, list] : status.hashes.entries) {
    check(!file.empty(), "a hash belongs to a file");
    for (const auto& hash : list) check(update::hash_prefix_length(hash) > 0, "a kept hash is decorated");
  }
}

// The order of the hashes cannot come back when a byte XML cannot carry,
// written as U+FFFD, moves a file's name.
bool writes_back_whole(const update::status_t& status) {
  for (const auto& entry : status.hashes.entries)
    if (update::has_xml_forbidden_byte(entry.first)) return false;
  return true;
}

// Text as the writer may get it, but for a byte XML cannot carry, which is
// written as U+FFFD.
std::string text(FuzzedDataProvider& in) {
  std::string t = in.ConsumeRandomLengthString(24);
  std::erase_if(t, [](char c) { return update::xml_forbidden_byte(static_cast<unsigned char>(c)); });
  return t;
}

void make_record(update::status_t& status, FuzzedDataProvider& in) {
  status.cmd = text(in), status.cmdid = text(in), status.start_time = text(in);
  for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n)
    status.messages.push_back({text(in), text(in), in.ConsumeIntegral<int32_t>()});
  for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n) {
    update::file_status_t& f = status.files.emplace_back();
    f.name = text(in), f.type = in.ConsumeIntegral<int32_t>();
    f.state = static_cast<update::file_state_t>(in.ConsumeIntegral<int32_t>());
    f.current_version = text(in), f.update_version = text(in), f.download_hash = text(in);
    f.download_size = in.ConsumeIntegral<uint64_t>(), f.total_size = in.ConsumeIntegral<uint64_t>();
    f.uri = text(in), f.error = text(in);
    f.base_hash = text(in), f.base_size = in.ConsumeIntegral<uint64_t>();
    f.installed_time = text(in), f.uptodate_time = text(in);
  }
  for (int n = in.ConsumeIntegralInRange(0, 3); n > 0; --n) status.hashes.store(text(in), text(in));
}

uint64_t kept_size(uint64_t size) { return (size >> 63) ? 0 : size; }

void check_written_and_read(const update::status_t& made, const update::status_t& read) {
  check(read.cmd == made.cmd && read.cmdid == made.cmdid && read.start_time == made.start_time, "root fields");
  auto m = made.messages.begin();
  for (const auto& r : read.messages) {
    while (m->text.empty()) ++m;  // an empty message leaves no trace
    check(r.uri == m->uri && r.text == m->text, "message fields");
    check(r.state == (m->state >= 1 && m->state <= 3 ? m->state : 0), "message state");
    ++m;
  }
  for (; m != made.messages.end(); ++m) check(m->text.empty(), "every message with a text is written");
  check(read.files.size() == made.files.size(), "every file is written");
  auto f = made.files.begin();
  for (const auto& r : read.files) {
    check(r.name == f->name && r.current_version == f->current_version && r.update_version == f->update_version &&
              r.download_hash == f->download_hash && r.uri == f->uri && r.error == f->error &&
              r.base_hash == f->base_hash &&
              r.installed_time == f->installed_time && r.uptodate_time == f->uptodate_time,
          "file texts");
    check(r.type == (f->type == 1) && r.state == (f->state >= 1 && f->state <= 6 ? f->state : 0), "type and state");
    check(r.download_size == kept_size(f->download_size) && r.total_size == kept_size(f->total_size) &&
              r.base_size == kept_size(f->base_size),
          "sizes");
    ++f;
  }
  check(read.hashes.entries == made.hashes.entries, "hashes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    FuzzedDataProvider in(data, size);
    update::status_t made, read_back;
    std::scoped_lock hold(made.lock, read_back.lock);
    make_record(made, in);
    made.render_xml();
    read(read_back, made.xml);
    check(!corrupted(read_back), "a record the writer wrote reads back");
    check_written_and_read(made, read_back);
  }
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
