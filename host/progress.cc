#include "host/progress.h"

#include <cstdio>

#include "agent/agent.h"
#include "platform/log.h"
#include "status/status.h"

namespace host {

namespace {

constexpr int bar_width = 30;

std::string join(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const auto& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

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

progress_t::progress_t(bool terminal) : terminal_(terminal) {
  observer_ = agent::add_log_observer(
      [this](uint16_t id, const std::vector<std::string>& attrs) { on_record(id, attrs); });
}

progress_t::~progress_t() {
  agent::remove_log_observer(observer_);
  std::lock_guard<std::mutex> hold(lock_);
  clear_bar();
}

void progress_t::on_record(uint16_t id, const std::vector<std::string>& attrs) {
  std::string line;
  if (id == log_id_failure) {
    line = "error: " + join(attrs, " ");
  } else if (id == log_id_course && !terminal_) {
    line = join(attrs, ": ");
  } else {
    return;
  }
  std::lock_guard<std::mutex> hold(lock_);
  clear_bar();
  std::fprintf(stderr, "%s\n", line.c_str());
}

void progress_t::tick() {
  if (!terminal_) return;
  std::string stage, file;
  uint64_t done = 0, total = 0;
  {
    std::lock_guard<std::recursive_mutex> hold(update::status.lock);
    stage = update::status_code_text(update::status.result);
    done = update::status.sum_download_size();
    total = update::status.sum_total_size();
    if (!update::status.checking_file.empty()) {
      file = "checking " + update::status.checking_file;
    } else if (update::status.current_file) {
      file = update::status.current_file->name;
    }
  }
  if (done > total) done = total;
  const int percent = total ? static_cast<int>(done * 100 / total) : 0;
  const int filled = total ? static_cast<int>(done * bar_width / total) : 0;
  std::string bar(static_cast<size_t>(filled), '#');
  bar.append(static_cast<size_t>(bar_width - filled), '-');
  std::lock_guard<std::mutex> hold(lock_);
  if (held_) return;
  std::fprintf(stderr, "\r\033[K%-10s [%s] %3d%%  %s / %s  %s", stage.c_str(), bar.c_str(), percent,
               human_size(done).c_str(), human_size(total).c_str(), file.c_str());
  std::fflush(stderr);
  bar_shown_ = true;
}

void progress_t::hold(bool on) {
  std::lock_guard<std::mutex> hold(lock_);
  held_ = on;
  if (on) clear_bar();
}

void progress_t::clear_bar() {
  if (!bar_shown_) return;
  std::fputs("\r\033[K", stderr);
  bar_shown_ = false;
}

}  // namespace host
