#include "platform/hash_file.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include <gcrypt.h>

#include "platform/ascii_text.h"
#include "platform/file_ops.h"

namespace {

struct hash_type_t {
  std::string_view name;  // canonical spelling, as decorations carry it
  int algo;
};

constexpr hash_type_t hash_types[] = {
    {"GOST3411_256_2012", GCRY_MD_STRIBOG256},
    {"GOST3411_512_2012", GCRY_MD_STRIBOG512},
    {"SHA256", GCRY_MD_SHA256},
    {"SHA512", GCRY_MD_SHA512},
};
constexpr const hash_type_t& default_type = hash_types[0];

// Large enough that the per-call overhead vanishes next to the hashing, small
// enough to keep the footprint flat whatever the file size.
constexpr size_t read_block = size_t{1} << 20;

std::atomic<uint64_t> hash_reads{0};

const hash_type_t* type_named(std::string_view name) {
  for (const auto& t : hash_types)
    if (update::equal_ignoring_case(t.name, name)) return &t;
  return nullptr;
}

bool is_hex(std::string_view text) {
  for (char c : text) {
    bool digit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (!digit) return false;
  }
  return true;
}

// The type a text names, and the first character of its decoration: the
// text's own "$" or "#", else "#".
const hash_type_t* resolve_type(std::string_view text, char& lead) {
  lead = '#';
  if (text.empty()) return nullptr;
  if (text[0] == '#' || text[0] == '$') {
    size_t colon = text.find(':');
    if (colon == std::string_view::npos) return nullptr;
    lead = text[0];
    return type_named(text.substr(1, colon - 1));
  }
  if (const hash_type_t* t = type_named(text)) return t;
  if ((text.size() == 64 || text.size() == 128) && is_hex(text))
    return &hash_types[text.size() == 64 ? 0 : 1];
  return nullptr;
}

std::string decoration(const hash_type_t& type, char lead) {
  std::string out;
  out.reserve(type.name.size() + 2);
  out += lead;
  out += type.name;
  out += ':';
  return out;
}

}  // namespace

namespace update::platform {

bool gcrypt_ready() {
  // libgcrypt wants one initialisation before any use; since 1.6 it is
  // thread-safe without callbacks. Secure memory stays off: it is a small
  // pool that must be set up before anything else, and the daemon keeps no
  // secret; the signing program holds its key for a moment only.
  static const bool ready = [] {
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P)) return true;
    if (!gcry_check_version(GCRYPT_VERSION)) return false;
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  return ready;
}

uint64_t hash_reads_done() { return hash_reads.load(std::memory_order_relaxed); }

running_hash_t::running_hash_t(const std::string& type) {
  char lead = '#';
  const hash_type_t* t = resolve_type(type, lead);
  // The caller compares what comes back with what it wrote, case and all,
  // so a decoration it wrote is given back as written. An unknown type still
  // gets a hash, of the default type, so that there is something to show.
  if (!t) {
    t = &default_type;
    decoration_ = decoration(*t, '#');
  } else if (type[0] == '#' || type[0] == '$') {
    decoration_ = type.substr(0, type.find(':') + 1);
  } else {
    decoration_ = decoration(*t, lead);
  }
  algo_ = t->algo;
  if (!gcrypt_ready() || gcry_md_open(&handle_, algo_, 0) != 0) handle_ = nullptr;
}

running_hash_t::~running_hash_t() {
  if (handle_) gcry_md_close(handle_);
}

void running_hash_t::add(const void* bytes, size_t count) {
  gcry_md_write(handle_, bytes, count);
  size_ += count;
}

bool running_hash_t::add_file(const char* path, uint64_t length) {
  hash_reads.fetch_add(1, std::memory_order_relaxed);
  // Unbuffered: each read of a block goes straight from the system into the
  // buffer, with no copy through the stream's own.
  std::unique_ptr<FILE, int (*)(FILE*)> file(open_file(path, "rb", false), std::fclose);
  if (!file || std::setvbuf(file.get(), nullptr, _IONBF, 0) != 0) return false;

  // A small file gets a small buffer, so that hashing many of them costs no
  // large allocations; a file that grows meanwhile is still read to its end.
  uint64_t size = 0;
  size_t capacity = read_block;
  if (query_file_size(path, size) && std::min(size, length) < read_block)
    capacity = (static_cast<size_t>(std::min(size, length)) / 4096 + 1) * 4096;
  std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity]);

  uint64_t left = length;
  while (left > 0) {
    const size_t want = static_cast<size_t>(std::min<uint64_t>(left, capacity));
    const size_t n = std::fread(buffer.get(), 1, want, file.get());
    add(buffer.get(), n);
    left -= n;
    if (n < want) break;  // fread comes back short only at the end or on an error
  }
  return !std::ferror(file.get()) && (length == UINT64_MAX || left == 0);
}

void running_hash_t::reset() {
  gcry_md_reset(handle_);
  size_ = 0;
}

std::string running_hash_t::result() {
  const unsigned char* digest = gcry_md_read(handle_, algo_);
  if (!digest) return std::string();
  return decoration_ + update::hex_lower(std::string_view(reinterpret_cast<const char*>(digest),
                                                          gcry_md_get_algo_dlen(algo_)));
}

}  // namespace update::platform

namespace HashFileChecker {

bool CalcHash(const std::string& path, const std::string& type, std::string& result) {
  update::platform::running_hash_t hash(type);
  if (!hash.ready() || !hash.add_file(path.c_str())) return false;
  std::string out = hash.result();
  if (out.empty()) return false;
  result = std::move(out);
  return true;
}

}  // namespace HashFileChecker

std::string getHashTypeDecorStr(const std::string& text) {
  char lead = '#';
  const hash_type_t* t = resolve_type(text, lead);
  return t ? decoration(*t, lead) : std::string();
}
