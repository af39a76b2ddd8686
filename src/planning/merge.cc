#include "planning/merge.h"

#include "platform/hash_file.h"
#include "platform/log.h"
#include "runner/run_exec.h"
#include "status/status.h"
#include "support/message_format.h"

namespace update {

namespace {

// The merged source whose entries already claim name, if any.
const update_ini_t* claimant_of(const std::string& name, const std::list<update_ini_t>& sources) {
  for (const auto& source : sources) {
    if (!source.merged) continue;
    for (const auto& rule : source.rules)
      for (const auto& entry : rule.entries)
        if (entry.name == name) return &source;
  }
  return nullptr;
}

const update_ini_t* main_rule_owner(const std::list<update_ini_t>& sources) {
  for (const auto& source : sources) {
    if (!source.merged) continue;
    for (const auto& rule : source.rules)
      if (rule.is_main) return &source;
  }
  return nullptr;
}

bool claims_free(const file_rule_t& rule, const update_ini_t& ini, const std::list<update_ini_t>& sources) {
  auto free_name = [&](const std::string& name) {
    const update_ini_t* other = claimant_of(name, sources);
    if (!other) return true;
    report_error(format_message("[%s] Duplicated file name in update.ini from: %s, also present in update.ini from: %s",
                                name.c_str(), ini.uri.c_str(), other->uri.c_str()));
    return false;
  };
  if (rule.entries.empty()) return free_name(rule.file_name);
  for (const auto& entry : rule.entries)
    if (!free_name(entry.name)) return false;
  return true;
}

}  // namespace

bool check_source_file(std::list<update_ini_t>& sources, const std::string& dir, const char* file_name) {
  const std::string path = dir + file_name;
  update_ini_t& latest = sources.back();
  if (!HashFileChecker::CalcHash(path, "", latest.hash)) {
    report_error(format_message("Failed to calculate hash for file: %s", path.c_str()));
    return false;
  }
  for (auto earlier = sources.begin(); &*earlier != &latest; ++earlier) {
    if (earlier->hash != latest.hash) continue;
    {
      TLogMessage log(log_id_course);
      log.append_attr(log_attr_text, "update.ini")
          .append_attr(log_attr_text, "skipped, because same was obtained from: " + earlier->uri);
    }
    sources.pop_back();
    return false;
  }
  return true;
}

bool merge_source(const update_ini_t& ini, const std::list<update_ini_t>& sources) {
  for (const auto& rule : ini.rules) {
    if (!claims_free(rule, ini, sources)) return false;
    if (!rule.is_main) continue;
    if (const update_ini_t* other = main_rule_owner(sources)) {
      report_error(format_message("Duplicated agent rule in update.ini from: %s, also present in update.ini from: %s",
                                  ini.uri.c_str(), other->uri.c_str()));
      return false;
    }
  }
  return ini.exec_before_update.empty() || run_exec_list(ini.exec_before_update, 0);
}

}  // namespace update
