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
