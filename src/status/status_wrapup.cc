// The end-of-run passes over the status records. Each logs one line per
// thing it looks at; none of them saves, end_run or start-up does that.
#include "facts/agent_facts.h"
#include "facts/versions.h"
#include "platform/hash_file.h"
#include "platform/log.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/time_text.h"

namespace update {

bool status_t::verify_versions(const std::string& update_dir) {
  bool changed = false;
  for (auto& f : files) {
    if (f.update_version.empty()) continue;
    std::string current;
    if (f.type == 1)
      current = current_version_text();
    else
      current_version_of(update_dir, f.name, current, false);
    f.current_version = current;

    if (version_less(current, f.update_version)) {
      if (f.state == file_uptodate) {
        f.state = file_outofdate;
        changed = true;
      }
      continue;
    }
    // Reached without finishing here (state 0 and unknown states too): the
    // version came by other means, so what was downloaded for it is stale.
    if (f.state != file_installed && f.state != file_uptodate) {
      {
        TLogMessage log(log_id_notice);
        log.append_attr(log_attr_text,
                        format_message("[%s] update state was: %s, current version: %s, update version: %s",
                                       f.name.c_str(), file_state_text(f.state), current.c_str(),
                                       f.update_version.c_str()));
      }
      remove_download(update_dir + f.name, f.update_version);
    }
    if (f.state != file_uptodate) {
      f.state = file_uptodate;
      f.uptodate_time = now_text();
      changed = true;
    }
  }
  return changed;
}

void status_t::rehash() {
  for (auto& [file, list] : hashes.entries) {
    for (auto& s : list) {
      const std::string type = s.substr(0, s.find('\0'));
      std::string result;
      if (!HashFileChecker::CalcHash(file, type, result)) {
        TLogMessage log(log_id_failure);
        log.append_attr(log_attr_text, format_message("[hash] failed to calc hash for file: %s, hash type: %s",
                                                      file.c_str(), s.c_str()));
        continue;
      }
      s = std::move(result);
      TLogMessage log(log_id_course);
      log.append_attr(log_attr_text, "hash")
          .append_attr(log_attr_text, format_message("file: %s, hash: %s", file.c_str(), s.c_str()));
    }
  }
}

namespace {

std::string file_summary(const file_status_t& f) {
  std::string text = "state: ";
  if (f.skipped)
    text += "skipped, because of conditions specified in update.ini, was state: ";
  else if (!f.available)
    text += "skipped, because corresponding update.ini is unavailable, was state: ";
  text += file_state_text(f.state);
  if (!f.current_version.empty()) text += ", current version: " + f.current_version;
  if (!f.update_version.empty() && f.update_version != f.current_version)
    text += ", update version: " + f.update_version;
  if (!f.installed_time.empty()) text += ", installed_time: " + f.installed_time;
  if (!f.uptodate_time.empty()) text += ", uptodate_time: " + f.uptodate_time;
  if (!f.error.empty()) text += ", error: " + f.error;
  return text;
}

}  // namespace

void status_t::log_files() {
  for (const auto& f : files) {
    const std::string text = file_summary(f);
    if (f.skipped || !f.available || !f.error.empty()) {
      TLogMessage log(f.skipped || !f.available ? log_id_notice : log_id_failure);
      log.append_attr(log_attr_text, format_message("[%s] %s", f.name.c_str(), text.c_str()));
    } else {
      TLogMessage log(log_id_course);
      log.append_attr(log_attr_text, f.name).append_attr(log_attr_text, format_message("%s", text.c_str()));
    }
  }
}

}  // namespace update
