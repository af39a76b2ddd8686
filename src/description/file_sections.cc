// The loop over the file sections: each section is checked, its texts are
// evaluated, and its conditions decide whether it becomes the file's rule.
// The first section of a file whose conditions all hold wins.
#include <cstdint>
#include <initializer_list>
#include <list>
#include <set>
#include <string_view>
#include <utility>

#include "description/loader.h"
#include "description/rollout.h"
#include "description/patch_keys.h"
#include "description/section_reader.h"
#include "description/section_rules.h"
#include "facts/versions.h"
#include "platform/local_params.h"
#include "platform/log.h"
#include "runner/run_exec.h"
#include "support/message_format.h"
#include "support/uri_join.h"
#include "support/xml_text.h"

namespace update {

namespace {

constexpr std::string_view condition_prefix = "apply_if.";

void log_file(uint16_t id, const std::string& name, const std::string& text) {
  TLogMessage log(id);
  log.append_attr(log_attr_text, name).append_attr(log_attr_text, text);
}

bool has_rule(const update_ini_t& ini, const std::string& name) {
  for (const auto& rule : ini.rules)
    if (rule.file_name == name) return true;
  return false;
}

// Every parameter still in the section, each value by itself, and the file's
// name: the section's local variables.
inivars_t locals_of(const CIniFile::group_t& section, const std::string& name) {
  inivars_t locals;
  for (const auto& [key, values] : section.params)
    for (const auto& value : values) locals.add(key, value);
  locals.add("file_name", name);
  return locals;
}

// The seven variable sets of one section. A text goes through them in this
// order, each to the end before the next: local before global, plain before
// computed, the lookup tables last so that a key may be computed first.
struct section_sets_t {
  section_sets_t(const section_reader_t& reader, inivars_t&& filled)
      : reader(reader),
        locals(std::move(filled)),
        local_hash_of(locals, reader.hashes),
        local_version_of(locals, reader.hashes, reader.hash_sections, reader.file_sections, reader.name_offset,
                         reader.dir) {}
  section_sets_t(const section_sets_t&) = delete;
  section_sets_t& operator=(const section_sets_t&) = delete;

  void apply(std::string& text) {
    for (inivars_t* set : std::initializer_list<inivars_t*>{&locals, &reader.globals, &local_hash_of,
                                                            &reader.global_hash_of, &local_version_of,
                                                            &reader.global_version_of, &reader.map_to})
      set->apply(text, variable_delimiters);
  }
  void apply(string_list_t& list) {
    for (auto& text : list) apply(text);
  }
  void use_ini_hash_type() { local_hash_of.type_source = reader.global_hash_of.type_source = &reader.ini_hash_type; }

  const section_reader_t& reader;
  inivars_t locals;
  hash_of_inivars_t local_hash_of;
  version_of_inivars_t local_version_of;
};

// The section's conditions, joined by AND in the engine's key order. The
// first false one is logged and ends the evaluation.
bool conditions_hold(const CIniFile::group_t& section, const std::string& name, const std::string& version,
                     unsigned counter, section_sets_t& sets) {
  std::list<std::pair<std::string, std::string>> conditions;
  section.params_with_prefix(condition_prefix, conditions);
  std::string checked;  // kept from one condition to the next, for the log
  unsigned number = 0;
  for (auto& [key, expected] : conditions) {
    ++number;
    const std::string empty_text = "empty value in condition: " + key + ", in section: " + section.name;
    if (expected.empty()) throw empty_text;
    sets.use_ini_hash_type();
    sets.apply(expected);
    if (expected.empty()) throw empty_text;

    bool holds = false;
    if (key == "apply_if.exec") {
      holds = run_exec(expected, true, 1);
    } else if (key == "apply_if.rollout") {
      holds = in_rollout(expected, name, version);
    } else {
      // Only a computed variable can be checked: the hash in the type that
      // the expected text names, or a version against a range.
      checked = "$(" + key.substr(condition_prefix.size()) + ")";
      hash_type_from_str_t expected_type(expected);
      sets.local_hash_of.type_source = &expected_type;
      if (sets.local_hash_of.apply(checked, variable_delimiters)) {
        holds = hash_equal(checked, expected);
      } else {
        sets.reader.global_hash_of.type_source = &expected_type;
        if (sets.reader.global_hash_of.apply(checked, variable_delimiters)) {
          holds = hash_equal(checked, expected);
        } else if (sets.local_version_of.apply(checked, variable_delimiters) ||
                   sets.reader.global_version_of.apply(checked, variable_delimiters)) {
          holds = version_in_range(checked, expected);
        } else {
          throw "unknown condition: " + key + ", in section: " + section.name;
        }
      }
      sets.use_ini_hash_type();  // expected_type goes out of scope
    }
    if (holds) continue;
    if (checked.empty())
      log_file(log_id_course, name, format_message("skip file section #%u: false condition #%u: %s", counter, number,
                                                   key.c_str()));
    else
      log_file(log_id_course, name,
               format_message("skip file section #%u: false condition #%u: %s = %s, checked value: %s", counter,
                              number, key.c_str(), expected.c_str(), checked.c_str()));
    return false;
  }
  return true;
}

// The file's patches; each is fetched from where download_uri would be.
void read_patches(const string_list_t& values, const std::string& source_uri, file_entry_t& entry) {
  for (const std::string& value : values) {
    patch_t& patch = entry.patches.emplace_back();
    std::string error = read_patch_value(value, patch);
    if (patch.uri.rfind("http://", 0) != 0) {
      std::string joined = source_uri;
      patch.uri = uri_join(joined, patch.uri);
    }
    if (error.empty()) error = check_patched_entry(entry);
    if (!error.empty()) throw "bad 'download_patch' for file '" + entry.name + "': " + error;
  }
}

// Reads one file section. Appends its rule when its conditions hold, else
// puts the file into rejected. Everything malformed throws, whatever the
// conditions would have said.
void read_file_section(const section_reader_t& reader, CIniFile::group_t& section, unsigned counter,
                       std::set<std::string>& rejected) {
  const std::string name = section.name.substr(reader.section_name.size() + 6);  // behind "T.file="
  if (name.empty()) throw "file name not specified in section: " + section.name;
  // The name keys the file's status entry, which the status file must carry.
  if (has_xml_forbidden_byte(name)) throw "control character in file name: " + xml_forbidden_shown(name);
  if (const std::string refused = refused_file_name(name); !refused.empty()) throw refused;
  if (has_rule(reader.ini, name)) {
    log_file(log_id_course, name, format_message("skip file section #%u: other section was chosen", counter));
    return;
  }

  std::string update_version = section.take_value("update_version", nullptr);
  string_list_t exec;
  section.take_values("exec", exec);
  if (exec.empty()) throw "missing required field 'exec' in section: " + section.name;
  std::string filesize = section.take_value("filesize", "");
  std::string download_uri = section.take_value("download_uri", "");
  std::string download_file = section.take_value("download_file", "");
  std::string download_hash = section.take_value("download_hash", "");
  string_list_t exec_before_download, download_patch;
  section.take_values("exec_before_download", exec_before_download);
  section.take_values("download_patch", download_patch);

  // Decided on the raw text: a "$(null)" reached by substitution is a path.
  const bool no_download = download_file == "$(null)";
  if (no_download) {
    const std::pair<const char*, bool> unused[] = {{"download_uri", download_uri.empty()},
                                                   {"download_hash", download_hash.empty()},
                                                   {"filesize", filesize.empty()},
                                                   {"exec_before_download", exec_before_download.empty()},
                                                   {"download_patch", download_patch.empty()}};
    for (const auto& [key, empty] : unused)
      if (!empty) throw std::string("'") + key + "' value no sense when download_file=$(null)";
  }
  uint64_t size = 0;
  if (!filesize.empty() && !parse_size(size, filesize)) throw "Bad filesize value: " + filesize;
  if (!no_download && LPARAMS::server::verify_downloads() && download_hash.empty())
    throw "missing required field 'download_hash' in section: " + section.name + ". Turn off local parameter '" +
        LPARAMS::server::verify_downloads_name() + "' to disable downloaded files verification";

  inivars_t locals = locals_of(section, name);
  locals.apply_to_values(locals, variable_delimiters);
  reader.globals.apply_to_values(locals, variable_delimiters);
  section_sets_t sets(reader, std::move(locals));
  sets.use_ini_hash_type();

  std::string current_version;
  current_version_of(reader.dir, name, current_version, false);
  sets.locals.add("current_version", current_version);

  sets.apply(update_version);
  if (update_version.empty()) throw "empty value of 'update_version' in section: " + section.name;
  // The status file carries the version and the hash as they come out of
  // substitution.
  if (has_xml_forbidden_byte(update_version))
    throw "unusable character in version: " + xml_forbidden_shown(update_version);
  sets.locals.add("update_version", update_version);

  if (!no_download) {
    if (!download_hash.empty()) sets.apply(download_hash);
    if (has_xml_forbidden_byte(download_hash))
      throw "unusable character in hash: " + xml_forbidden_shown(download_hash);
    sets.locals.add("download_hash", download_hash);
    if (!download_file.empty())
      sets.apply(download_file);
    else
      download_file = reader.dir + name;
    if (const std::string refused = refused_local_path(download_file); !refused.empty()) throw refused;
    sets.local_hash_of.add_value("download_file", download_file);
    // Only this one scheme counts as absolute; anything else is relative to
    // the source's URI.
    std::string joined = reader.ini.uri;
    if (download_uri.empty()) {
      download_uri = uri_join(joined, name);
    } else {
      sets.apply(download_uri);
      if (download_uri.rfind("http://", 0) != 0) download_uri = uri_join(joined, download_uri);
    }
    sets.locals.add("download_uri", download_uri);
    sets.apply(exec_before_download);
    sets.apply(download_patch);
  }
  sets.apply(exec);
  file_entry_t entry{name, download_file, download_uri, download_hash, size, false};
  read_patches(download_patch, reader.ini.uri, entry);

  if (!conditions_hold(section, name, update_version, counter, sets)) {
    rejected.insert(name);
    return;
  }
  log_file(log_id_course, name, format_message("apply file section #%u", counter));
  file_rule_t& rule = reader.ini.rules.emplace_back();
  rule.file_name = name;
  rule.update_version = update_version;
  rule.exec_list = std::move(exec);
  rule.exec_before_download = std::move(exec_before_download);
  rule.current_version = current_version;
  if (!no_download) rule.entries.push_back(std::move(entry));
  rule.display_name = rule.update_version + " (" + rule.file_name + ")";
  rule.owner = &reader.ini;
}

}  // namespace

bool version_in_range(const std::string& version, const std::string& spec) {
  const size_t dash = spec.find('-');
  if (dash == std::string::npos) return version_equal(version, spec);
  std::string_view lower = std::string_view(spec).substr(0, dash), upper = std::string_view(spec).substr(dash + 1);
  while (!lower.empty() && (lower.back() == ' ' || lower.back() == '\t')) lower.remove_suffix(1);
  while (!upper.empty() && (upper.front() == ' ' || upper.front() == '\t')) upper.remove_prefix(1);
  if (!lower.empty() && version_less(version, std::string(lower))) return false;
  if (!upper.empty() && version_less(std::string(upper), version)) return false;
  return true;
}

void read_file_sections(const section_reader_t& reader) {
  std::set<std::string> rejected;  // bytewise order
  unsigned counter = 1;
  for (CIniFile::group_t* section : reader.file_sections) read_file_section(reader, *section, counter++, rejected);

  for (const std::string& name : rejected) {
    if (has_rule(reader.ini, name)) continue;  // a later section applied
    if (!parse_bool_text(reader.product.value_of("can_skip." + name, "0")))
      throw "all sections has false conditions for file: " + name;
    TLogMessage(log_id_notice).append_attr(log_attr_text, "all sections were skipped for file: " + name);
    // Known, with nothing to do: no version, no commands, no entries.
    reader.ini.rules.emplace_back().file_name = name;
  }
}

}  // namespace update
