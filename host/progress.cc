#include "host/progress.h"

#include <cstdio>

#include "agent/agent.h"
#include "client/progress_line.h"
#include "platform/log.h"
#include "status/status.h"

namespace host {

namespace {

std::string join(const std::vector<std::string>& parts, const char* separator) {
  std::string text;
  for (const auto& part : parts) {
    if (!text.empty()) text += separator;
    text += part;
  }
  return text;
}

}  // namespace

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
  const std::string line = client::progress_line(stage, done, total, file);
  std::lock_guard<std::mutex> hold(lock_);
  if (held_) return;
  std::fputs(line.c_str(), stderr);
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
