#include "facts/stop_flag.h"

#include <atomic>

namespace update {

namespace {

// The current life's number, shifted left by one, with its stop in the
// lowest bit: one atomic word, so that a reader never sees a new life with
// an old stop.
std::atomic<uint64_t> lives{0};
thread_local uint64_t pinned = 0;

}  // namespace

uint64_t begin_life() {
  uint64_t seen = lives.load();
  while (!lives.compare_exchange_weak(seen, ((seen >> 1) + 1) << 1)) {
  }
  return (seen >> 1) + 1;
}

void request_stop() { lives.fetch_or(1); }

uint64_t current_life() { return lives.load() >> 1; }

bool life_over(uint64_t life) {
  const uint64_t now = lives.load();
  return life != now >> 1 || (now & 1) != 0;
}

void pin_life(uint64_t life) { pinned = life; }

bool stop_requested() { return pinned != 0 ? life_over(pinned) : (lives.load() & 1) != 0; }

void clear_stop_request() { lives.fetch_and(~uint64_t{1}); }

}  // namespace update
