#include "transfer/body_hash.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <utility>

#include "status/status.h"

namespace update {

namespace {

// Enough to carry a burst of the transfer past a moment of the hash, small
// enough for the module's memory budget.
constexpr size_t buffer_size = size_t{4} << 20;
// What the hash thread takes at a time, so that room comes back to the
// writer in steady steps rather than all at once.
constexpr size_t most_per_step = size_t{256} << 10;

}  // namespace

body_hash_t::body_hash_t(const std::string& type, std::string name) : hash_(type), name_(std::move(name)) {}

body_hash_t::~body_hash_t() { end(); }

void body_hash_t::begin(const std::string& path, uint64_t offset) {
  end();
  if (!hash_.ready()) return;
  if (!valid_ || hash_.size() != offset) {
    hash_.reset();
    valid_ = true;
    if (offset != 0) {
      set_checking_file(name_);
      valid_ = hash_.add_file(path.c_str(), offset);
      set_checking_file("");
    }
  }
  if (!valid_) return;
  // Here and not in add, which runs inside libcurl, where nothing may throw.
  if (!buffer_) buffer_.reset(new char[buffer_size]);
  try {
    thread_ = std::thread(&body_hash_t::hash_behind, this);
  } catch (const std::system_error&) {
    // No thread to spare: add hashes, and the transfer waits for it.
  }
}

void body_hash_t::add(const char* bytes, size_t count) {
  if (!valid_) return;
  if (!thread_.joinable()) {
    hash_.add(bytes, count);
    return;
  }
  while (count > 0) {
    std::unique_lock<std::mutex> hold(lock_);
    drained_.wait(hold, [this] { return used_ < buffer_size; });
    const size_t at = (first_ + used_) % buffer_size;
    const size_t n = std::min({count, buffer_size - used_, buffer_size - at});
    // The hash thread reads only the used part, so the copy into the free
    // part needs no lock; counting it in hands it over.
    hold.unlock();
    std::memcpy(buffer_.get() + at, bytes, n);
    hold.lock();
    used_ += n;
    hold.unlock();
    filled_.notify_one();
    bytes += n;
    count -= n;
  }
}

void body_hash_t::end() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> hold(lock_);
    closing_ = true;
  }
  filled_.notify_one();
  thread_.join();
  closing_ = false;
}

bool body_hash_t::result(uint64_t size, std::string& hash) {
  end();
  if (!valid_ || hash_.size() != size) return false;
  valid_ = false;
  hash = hash_.result();
  return !hash.empty();
}

void body_hash_t::hash_behind() {
  std::unique_lock<std::mutex> hold(lock_);
  for (;;) {
    filled_.wait(hold, [this] { return used_ > 0 || closing_; });
    if (used_ == 0) return;  // closing, and everything added is hashed
    const size_t n = std::min({used_, buffer_size - first_, most_per_step});
    const char* bytes = buffer_.get() + first_;
    hold.unlock();
    hash_.add(bytes, n);
    hold.lock();
    first_ = (first_ + n) % buffer_size;
    used_ -= n;
    drained_.notify_one();
  }
}

}  // namespace update
