#include "client/progress_line.h"

#include <cstdio>

namespace client {

namespace {

constexpr int bar_width = 30;

}  // namespace

std::string human_size(uint64_t bytes) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof units / sizeof units[0]) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  }
  return text;
}

std::string progress_line(const std::string& stage, uint64_t done, uint64_t total, const std::string& what) {
  if (done > total) done = total;
  const int percent = total ? static_cast<int>(done * 100 / total) : 0;
  const int filled = total ? static_cast<int>(done * bar_width / total) : 0;
  std::string bar(static_cast<size_t>(filled), '#');
  bar.append(static_cast<size_t>(bar_width - filled), '-');
  char head[64];
  std::snprintf(head, sizeof head, "%-10s [", stage.c_str());
  char share[16];
  std::snprintf(share, sizeof share, "] %3d%%  ", percent);
  return "\r\033[K" + std::string(head) + bar + share + human_size(done) + " / " + human_size(total) + "  " + what;
}

}  // namespace client
