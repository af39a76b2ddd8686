// Placeholder until the file-section reader lands: a description in that
// format is recognised and passed over, yielding no rule and no report.
#include "description/section_rules.h"

#include "support/ini_file.h"

namespace update {

bool read_section_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t&, const std::string&,
                        const inivars_t&, hash_cache_t&) {
  CIniFile::group_list_t file_sections;
  ini_file.groups_with_prefix(section_name + ".file=", file_sections);
  return !file_sections.empty();
}

}  // namespace update
