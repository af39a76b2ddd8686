// The file-section format of update.ini: sections "T.file=NAME" with their
// conditions, variables and install commands, where T is the product section.
#pragma once
#include <string>

#include "description/update_ini.h"

class CIniFile;

namespace update {

// False when the file has no file section, and then nothing was changed;
// true when it has been read into ini. Failures are thrown (a text, or an
// ini engine exception) for load_update_ini to report.
bool read_section_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini,
                        const std::string& dir, const inivars_t& predefined, hash_cache_t& hashes);

}  // namespace update
