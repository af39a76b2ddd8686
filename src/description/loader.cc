#include "description/loader.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <vector>

#include "description/indexed_rules.h"
#include "description/section_rules.h"
#include "facts/agent_facts.h"
#include "facts/trust.h"
#include "platform/agent_paths.h"
#include "platform/local_params.h"
#include "records/update_ini.h"
#include "status/status.h"
#include "status/status_file.h"
#include "support/file_helpers.h"
#include "support/ini_file.h"
#include "support/message_format.h"

namespace update {

namespace {

// The parts of a path between separators ("/" and "\\"), without empty
// and "." ones; ".." parts stay.
std::vector<std::string> path_parts(const std::string& path) {
  std::vector<std::string> parts;
  for (size_t at = 0; at <= path.size();) {
    const size_t end = std::min(path.find_first_of("/\\", at), path.size());
    const std::string part = path.substr(at, end - at);
    if (!part.empty() && part != ".") parts.push_back(part);
    at = end + 1;
  }
  return parts;
}

// The last part of a path as the system resolves its ".." parts.
std::string resolved_last_part(const std::string& path) {
  std::vector<std::string> kept;
  for (auto& part : path_parts(path)) {
    if (part != "..") {
      kept.push_back(std::move(part));
    } else if (!kept.empty()) {
      kept.pop_back();
    }
  }
  return kept.empty() ? "" : kept.back();
}

bool is_own_file(const std::string& name) {
  // ".unchecked": where a signed description waits for its check; the lock
  // file is what earlier versions locked, and may still be there.
  static const std::string own[] = {
      status_file_name, backup_name(status_file_name), local_ini_name, std::string(local_ini_name) + ".unchecked",
      serials_file_name, backup_name(serials_file_name), "corvid_update.lock", log_file_name};
  return std::find(std::begin(own), std::end(own), name) != std::end(own);
}

// Steps after the file is open; everything they throw is reported by the caller.
bool parse_description(std::istream& in, update_ini_t& ini, const inivars_t& predefined, hash_cache_t& hashes,
                       const std::string& dir, int mode) {
  const std::string& section = product_section_name();
  CIniFile ini_file(in);
  if (mode == 1) return read_indexed_rules(ini_file, section, ini, dir, mode);
  if (read_section_rules(ini_file, section, ini, dir, predefined, hashes)) {
    read_params(ini_file, section, ini);
    return true;
  }
  if (!read_indexed_rules(ini_file, section, ini, dir, mode)) return false;
  read_params(ini_file, section, ini);
  if (ini.rules.empty()) {
    // Only the indexed format needs a rule: without one the source says nothing.
    report_error(format_message("Parse 'update.ini' error: parameter not found: 'version', in section: [%s]",
                               section.c_str()));
    return false;
  }
  return true;
}

// A signed description vouches for the files only through their hashes.
bool pins_every_file(const update_ini_t& ini) {
  for (const auto& rule : ini.rules)
    for (const auto& entry : rule.entries)
      if (entry.hash.empty()) {
        report_error(format_message("Parse 'update.ini' error: no hash for file '%s': a signed description must "
                                    "pin every file it downloads, whatever local parameter '%s' says",
                                    entry.name.c_str(), LPARAMS::server::verify_downloads_name().c_str()));
        return false;
      }
  return true;
}

}  // namespace

std::string refused_file_name(const std::string& name) {
  const std::vector<std::string> parts = path_parts(name);
  if (name.find_first_of("/\\") == 0 || std::find(parts.begin(), parts.end(), "..") != parts.end())
    return "file name leaves the update directory: " + name;
  if (!parts.empty() && is_own_file(parts.back())) return "file name is one of the module's own files: " + name;
  return "";
}

std::string refused_local_path(const std::string& path) {
  return is_own_file(resolved_last_part(path)) ? "download file is one of the module's own files: " + path : "";
}

const std::string& product_section_name() {
  static const std::string name = productTarget();
  return name;
}

bool load_update_ini(update_ini_t& ini, const inivars_t& predefined, hash_cache_t& hashes, const std::string& dir,
                     const char* file_name, int mode) {
  const std::string path = dir + file_name;
  std::utf8_ifstream in(path);
  if (!in) {
    if (mode != 1) report_error(format_message("Can't open file for reading: %s", path.c_str()));
    return false;
  }
  try {
    return parse_description(in, ini, predefined, hashes, dir, mode) &&
           (!ini.signature_checked || pins_every_file(ini));
  } catch (const CIniFileGroupNotFound& e) {
    report_error(format_message("Parse 'update.ini' error: section not found [%s]", e.what()));
  } catch (const CIniFileVarNameNotFound& e) {
    report_error(format_message("Parse 'update.ini' error: parameter not found: '%s', in section: [%s]", e.what(),
                               e.group.c_str()));
  } catch (const std::exception& e) {
    report_error(format_message("Parse 'update.ini' error: %s", e.what()));
  } catch (const std::string& text) {
    report_error(format_message("Parse 'update.ini' error: %s", text.c_str()));
  }
  return false;
}

}  // namespace update
