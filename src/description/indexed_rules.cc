#include "description/indexed_rules.h"

#include <unordered_set>

#include "description/loader.h"
#include "description/rollout.h"
#include "description/patch_keys.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "platform/log.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/ini_file.h"
#include "support/message_format.h"
#include "support/uri_join.h"
#include "support/xml_text.h"

namespace update {

namespace {

// The file's name is what follows the last "/", else the last "\": the
// directories of an item count on the server, not on the disk.
std::string base_name(const std::string& item) {
  size_t cut = item.rfind('/');
  if (cut == std::string::npos) cut = item.rfind('\\');
  return cut == std::string::npos ? item : item.substr(cut + 1);
}

// Trailing separators go, unless nothing else is there; then exactly one
// separator ends it, also an empty path.
void normalise_download_path(std::string& path) {
  path = without_trailing_separators(path);
  path += platform::path_separator;
}

}  // namespace

std::string indexed_key(const std::string& key, unsigned index) {
  return index == 0 ? key : key + "." + std::to_string(index);
}

bool next_list_item(const char*& cursor, std::string& item) {
  if (*cursor == '\0') return false;
  while (*cursor == ' ' || *cursor == '\t') ++cursor;
  const char* start = cursor;
  while (*cursor != '\0' && *cursor != ',') ++cursor;
  item.assign(start, cursor);
  if (*cursor == ',') ++cursor;
  return true;
}

bool read_file_list(const std::string& files, const std::string& hashes, const std::string& sizes,
                    const std::string& download_path, const std::string& base_uri, std::list<file_entry_t>& entries) {
  // A name keys its file's status entry, which the status file must carry;
  // a NUL would also end the list unseen.
  if (has_xml_forbidden_byte(files)) {
    report_error(format_message("control character in file name: %s", xml_forbidden_shown(files).c_str()));
    return false;
  }
  if (has_xml_forbidden_byte(hashes)) {
    report_error(format_message("unusable character in hash: %s", xml_forbidden_shown(hashes).c_str()));
    return false;
  }
  const char* file_cursor = files.c_str();
  const char* hash_cursor = hashes.c_str();
  const char* size_cursor = sizes.c_str();
  std::string item, hash_item, size_item;
  // Names of this list so far: a long list must not cost a walk per name.
  std::unordered_set<std::string> names;
  for (const auto& earlier : entries) names.insert(earlier.name);
  for (unsigned count = 1; next_list_item(file_cursor, item); ++count) {
    if (item.empty()) {
      report_error(format_message("empty file name specified in file list(#%u): %s", count, files.c_str()));
      return false;
    }
    file_entry_t& entry = entries.emplace_back();
    entry.name = base_name(item);
    entry.local_path = download_path + entry.name;
    const std::string refused = refused_file_name(entry.name);
    if (!refused.empty()) {
      report_error(refused);
      return false;
    }
    entry.uri = base_uri;
    uri_join(entry.uri, item);
    if (!hashes.empty()) {
      if (!next_list_item(hash_cursor, hash_item)) {
        report_error(
            format_message("files count greater than hashes count: %s > %s", files.c_str(), hashes.c_str()));
        return false;
      }
      entry.hash = hash_item;
    }
    if (!sizes.empty()) {
      if (!next_list_item(size_cursor, size_item)) {
        report_error(
            format_message("files count greater than sizes count: %s > %s", files.c_str(), sizes.c_str()));
        return false;
      }
      if (!parse_size(entry.size, size_item)) {
        report_error(format_message("bad filesize value: %s", size_item.c_str()));
        return false;
      }
    }
    if (!names.insert(entry.name).second) {
      report_error(format_message("duplicated file name: %s", item.c_str()));
      return false;
    }
  }
  if (!entries.empty()) {
    if (next_list_item(hash_cursor, hash_item)) {
      report_error(format_message("files count less than hashes count: %s < %s", files.c_str(), hashes.c_str()));
      return false;
    }
    if (next_list_item(size_cursor, size_item)) {
      report_error(format_message("files count less than sizes count: %s < %s", files.c_str(), sizes.c_str()));
      return false;
    }
  }
  return true;
}

bool read_indexed_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini,
                        const std::string& dir, int mode) {
  CIniFile::group_list_t sections;
  ini_file.groups_named(section_name, sections);
  if (sections.empty()) return true;
  auto value = [&](const std::string& key, unsigned index, const char* default_value) {
    return value_in_groups(sections, section_name, indexed_key(key, index), default_value);
  };

  for (unsigned index = 0;; ++index) {
    if (index == 1 && mode == 1) return !ini.rules.empty();
    file_rule_t rule;
    rule.update_version = value("version", index, "");
    if (has_xml_forbidden_byte(rule.update_version)) {
      report_error(format_message("unusable character in version: %s", xml_forbidden_shown(rule.update_version).c_str()));
      return false;
    }
    if (rule.update_version.empty()) {
      if (index != 0) return true;
      continue;
    }
    if (index == 0) rule.is_main = true;
    if (index == 1 && !ini.rules.empty()) ini.rules.clear();  // numbered rules replace the bare one
    // A numbered rule of a staged rollout is left out where this machine is
    // not in its share; the series goes on.
    const std::string share = index == 0 ? "" : value("rollout", index, "");
    if (!share.empty() && !in_rollout(share, value("file", index, ""), rule.update_version)) {
      TLogMessage(log_id_course)
          .append_attr(log_attr_text, format_message("skip rule #%u: not in its rollout of %s", index, share.c_str()));
      continue;
    }

    rule.file_name = value("file", index, "");
    rule.hash = value("hash", index, "");
    if (rule.hash.empty() && !rule.file_name.empty() && LPARAMS::server::verify_downloads()) {
      report_error(format_message("Parse 'update.ini' error: missing required field 'hash'. Turn off local "
                                       "parameter '%s' to disable downloaded files verification",
                                       LPARAMS::server::verify_downloads_name().c_str()));
      return false;
    }
    rule.filesize = value("filesize", index, "");
    rule.download_path = value("download_path", index, dir.c_str());
    normalise_download_path(rule.download_path);
    if (!read_file_list(rule.file_name, rule.hash, rule.filesize, rule.download_path, ini.uri, rule.entries) ||
        !read_indexed_patches(sections, indexed_key("patch", index), ini.uri, rule.entries))
      return false;

    rule.exec_sys = value("exec_sys", index, "");
    rule.exec_user = value("exec_user", index, "");
    if (rule.exec_sys.empty() && rule.exec_user.empty()) rule.exec_sys = value("exec", index, nullptr);
    const std::string exec_wait = value("exec_wait", index, "");
    rule.exec_sys_wait = value("exec_sys_wait", index, exec_wait.c_str());
    rule.exec_user_wait = value("exec_user_wait", index, exec_wait.c_str());

    rule.display_name = rule.is_main ? rule.update_version : rule.update_version + " (" + rule.file_name + ")";
    rule.owner = &ini;
    rule.legacy_exec = true;
    ini.rules.push_back(std::move(rule));
  }
}

}  // namespace update
