#include "planning/reconcile.h"

#include <algorithm>

#include "description/loader.h"
#include "facts/agent_facts.h"
#include "facts/versions.h"
#include "platform/log.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/time_text.h"

namespace update {

namespace {

// Steps under one hold: availability cleared, hashes declared anew.
void redeclare_hashes(const std::list<update_ini_t>& sources, status_t& status, bool all_loaded) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  for (auto& f : status.files) {
    f.available = false;
    f.skipped = false;
  }
  hash_cache_t old;
  old.entries.swap(status.hashes.entries);
  for (const auto& source : sources) {
    if (!source.merged) continue;
    for (const auto& spec : source.status_hash_of) status.hashes.declare(spec);
  }
  hash_cache_t::carry_over(status.hashes, old);
  for (const auto& [file, list] : old.entries) {
    if (list.empty()) continue;
    if (all_loaded) {
      TLogMessage log(log_id_notice);
      log.append_attr(log_attr_text, format_message("hash of file removed from status: %s, hash: %s", file.c_str(),
                                                    list.front().c_str()));
      continue;
    }
    // A source may only be unreachable this time: its hashes stay.
    for (const auto& hash : list) status.hashes.store(file, hash);
  }
}

void mark_rule(status_t& status, file_rule_t& rule) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  if (rule.entries.empty()) {
    file_status_t& f = status.file_entry(rule.file_name);
    f.available = true;
    f.type = 0;
    f.skip_downloading = true;
    return;
  }
  for (const auto& entry : rule.entries) {
    file_status_t& f = status.file_entry(entry.name);
    f.available = true;
    f.type = rule.is_main ? 1 : 0;
  }
}

void remove_withdrawn(status_t& status, const std::string& dir) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  for (auto f = status.files.begin(); f != status.files.end();) {
    if (f->available || f->skipped) {
      ++f;
      continue;
    }
    {
      TLogMessage log(log_id_notice);
      log.append_attr(log_attr_text,
                      format_message("[%s] file removed from update, current version: %s, state: %s",
                                     f->name.c_str(), f->current_version.c_str(), file_state_text(f->state)));
    }
    // A name no description may give any more, kept by an older status, takes
    // no file of the module's with it.
    if (refused_file_name(f->name).empty()) remove_download(dir + f->name, f->update_version);
    // Nothing may keep pointing at an entry that goes.
    if (status.current_file == &*f) status.current_file = nullptr;
    f = status.files.erase(f);
  }
}

}  // namespace

void reconcile_status(std::list<update_ini_t>& sources, status_t& status, plans_t& plans, const std::string& dir) {
  const bool all_loaded =
      std::all_of(sources.begin(), sources.end(), [](const update_ini_t& s) { return s.merged; });
  redeclare_hashes(sources, status, all_loaded);
  for (auto& source : sources) {
    if (!source.merged) continue;
    for (auto& rule : source.rules) {
      if (rule.update_version.empty()) {
        // Conditions let the file pass this time: it stays as it was.
        std::lock_guard<std::recursive_mutex> hold(status.lock);
        for (auto& f : status.files) {
          if (f.name != rule.file_name) continue;
          f.available = true;
          f.skipped = true;
          break;
        }
        continue;
      }
      mark_rule(status, rule);
      plans.push_back(&rule);
    }
  }
  if (all_loaded) remove_withdrawn(status, dir);
}

void seed_status(status_t& status, const update_ini_t& ini, const std::string& dir) {
  bool outdated = false;
  for (const auto& rule : ini.rules) {
    for (const auto& entry : rule.entries) {
      file_status_t& f = status.file_entry(entry.name);
      f.type = rule.is_main ? 1 : 0;
      f.update_version = rule.update_version;
      f.available = true;
      if (f.type == 1)
        f.current_version = current_version_text();
      else
        current_version_of(dir, entry.name, f.current_version, false);
      if (f.current_version.empty()) {
        f.state = file_outofdate;
        f.error = "current version undefined";
        outdated = true;
      } else if (version_less(f.current_version, f.update_version)) {
        f.state = file_outofdate;
        outdated = true;
      } else {
        f.state = file_uptodate;
        f.uptodate_time = now_text();
      }
    }
  }
  if (outdated)
    status.set_failure("Update status undefined");
  else
    status.result = status_uptodate;
  status.save();
}

}  // namespace update
