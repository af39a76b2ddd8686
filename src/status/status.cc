#include "status/status.h"

#include <algorithm>

#include "platform/log.h"
#include "records/update_ini.h"
#include "support/message_format.h"
#include "support/time_text.h"

namespace update {

status_t status;
bool status_reported = false;

const char* status_code_text(int32_t code) {
  switch (code) {
    case status_prepare: return "prepare";
    case status_download: return "download";
    case status_install: return "install";
    case status_error: return "error";
    case status_outofdate: return "outofdate";
    case status_downloaded: return "downloaded";
    case status_installed: return "installed";
    case status_uptodate: return "uptodate";
    default: return "undefined";
  }
}

const char* file_state_text(int32_t state) {
  switch (state) {
    case file_uptodate: return "uptodate";
    case file_outofdate: return "outofdate";
    case file_download: return "download";
    case file_downloaded: return "downloaded";
    case file_install: return "install";
    case file_installed: return "installed";
    default: return "";
  }
}

file_status_t& status_t::file_entry(const std::string& name) {
  for (auto& f : files)
    if (f.name == name) return f;
  files.emplace_back();
  files.back().name = name;
  return files.back();
}

void status_t::select_message(const std::string& uri) {
  std::lock_guard<std::recursive_mutex> hold(lock);
  for (auto& m : messages) {
    if (m.uri == uri) {
      current_message = &m;
      return;
    }
  }
  messages.emplace_back();
  messages.back().uri = uri;
  current_message = &messages.back();
}

void status_t::begin_run(Command command, const std::string& id) {
  {
    TLogMessage log(log_id_course);
    log.append_attr(log_attr_text, "start")
        .append_attr(log_attr_text, id.empty() ? format_message("processing command: %s", command_text(command))
                                               : format_message("processing command: %s (%s)", command_text(command),
                                                                id.c_str()));
  }
  std::lock_guard<std::recursive_mutex> hold(lock);
  messages.clear();
  messages.emplace_back();
  current_message = &messages.back();
  xml.clear();
  cmd = command_text(command);
  cmdid = id;
  start_time = now_text();
  result = status_prepare;
  save_change();
  status_reported = false;
}

void status_t::end_run(Command command) {
  std::lock_guard<std::recursive_mutex> hold(lock);
  current_file = nullptr;
  current_message = nullptr;
  current_rule = nullptr;
  result = derive_result();
  if (result == status_installed) client_visible = true;
  // The outcome of a command must outlast a power loss.
  if (save_enabled) {
    ++revision;
    save(true);
  }
  {
    TLogMessage log(log_id_course);
    log.append_attr(log_attr_text, "done")
        .append_attr(log_attr_text,
                     format_message("command: %s, result: %s", command_text(command), status_code_text(result)));
  }
  status_reported = false;
}

bool status_t::begin_install(const file_rule_t& rule) {
  std::lock_guard<std::recursive_mutex> hold(lock);
  current_rule = &rule;
  if (!rule.entries.empty()) {
    bool something = false;
    for (const auto& entry : rule.entries) {
      const file_status_t& f = file_entry(entry.name);
      if (f.skipped || !f.available || !f.error.empty()) return false;
      switch (f.state) {
        case file_uptodate:
        case file_installed: break;
        case file_downloaded:
        case file_install: something = true; break;
        default: return false;
      }
    }
    if (!something) return false;
    for (const auto& entry : rule.entries) file_entry(entry.name).state = file_install;
  } else {
    file_status_t& f = file_entry(rule.file_name);
    if (f.skipped || !f.available || !f.skip_downloading || f.state != file_outofdate) return false;
    f.state = file_install;
  }
  save_change();
  return true;
}

void status_t::end_install(const file_rule_t& rule) {
  const std::string now = now_text();
  std::lock_guard<std::recursive_mutex> hold(lock);
  current_rule = nullptr;
  auto finish = [&](const std::string& name) {
    file_status_t& f = file_entry(name);
    f.state = file_installed;
    f.installed_time = now;
  };
  if (!rule.entries.empty()) {
    for (const auto& entry : rule.entries) finish(entry.name);
  } else {
    finish(rule.file_name);
  }
  save_change();
}

void status_t::record_error(int level, const std::string& text) {
  if (level != 0) return;
  std::lock_guard<std::recursive_mutex> hold(lock);
  if (current_message && current_message->text.empty()) {
    current_message->text = text;
    current_message->state = result;
  }
  if (current_file && current_file->error.empty()) current_file->error = text;
  if (current_rule) {
    for (const auto& entry : current_rule->entries) {
      file_status_t& f = file_entry(entry.name);
      if (f.error.empty()) f.error = text;
    }
  }
  save_change();
}

void status_t::set_failure(const std::string& text) {
  messages.emplace_front();
  messages.front().text = text;
  xml.clear();
  result = status_error;
}

void status_t::save_change() {
  if (!save_enabled) return;
  ++revision;
  save();
}

status_code_t status_t::derive_result() const {
  for (const auto& m : messages)
    if (!m.text.empty()) return status_error;
  status_code_t kept = status_uptodate;
  for (const auto& f : files) {
    if (!f.error.empty()) return status_error;
    status_code_t mapped;
    switch (f.state) {
      case file_uptodate: mapped = status_uptodate; break;
      case file_outofdate: mapped = status_outofdate; break;
      case file_downloaded: mapped = status_downloaded; break;
      case file_installed: mapped = status_installed; break;
      default: return status_error;
    }
    kept = std::min(kept, mapped);
  }
  return kept;
}

namespace {

// Entries in state 1 count only when their two sizes agree.
bool counts_in_sums(const file_status_t& f) {
  if (!f.available || f.skipped) return false;
  return f.state != file_uptodate || f.download_size == f.total_size;
}

}  // namespace

uint64_t status_t::sum_download_size() const {
  uint64_t sum = 0;
  for (const auto& f : files)
    if (counts_in_sums(f)) sum += f.download_size;
  return sum;
}

uint64_t status_t::sum_total_size() const {
  uint64_t sum = 0;
  for (const auto& f : files)
    if (counts_in_sums(f)) sum += f.total_size;
  return sum;
}

void status_t::reset() {
  std::lock_guard<std::recursive_mutex> hold(lock);
  result = status_undefined;
  cmd.clear();
  cmdid.clear();
  start_time.clear();
  checking_file.clear();
  files.clear();
  messages.clear();
  hashes.entries.clear();
  current_file = nullptr;
  current_message = nullptr;
  current_rule = nullptr;
  xml.clear();
  client_visible = false;
  save_enabled = true;
  revision = 0;
  status_reported = false;
}

void set_checking_file(const std::string& name) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.checking_file = name;
}

}  // namespace update
