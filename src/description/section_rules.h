// The file-section format of update.ini: a product section "T" with global
// variables, candidate sections "T.file=NAME" guarded by conditions, lookup
// tables "T.map_to.NAME" and hash-to-version tables "T.hash_to_version.NAME",
// where T is the product section's name.
#pragma once
#include <string>
#include <string_view>
#include <utility>

#include "records/update_ini.h"

class CIniFile;

namespace update {

// Reads the description into ini: one rule per file, from the first of its
// sections whose conditions all hold. Called by load_update_ini on the update
// worker; conditions may hash files (through hashes) and run commands.
// False when the file has no file section, and then nothing was changed;
// true when it has been read. Failures are thrown (a text, or an ini engine
// exception) for load_update_ini to report, and ini is to be dropped then.
bool read_section_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini,
                        const std::string& dir, const inivars_t& predefined, hash_cache_t& hashes);

// The part of uri before its last "?", and the part after it (empty without).
std::pair<std::string_view, std::string_view> uri_split_query(std::string_view uri);

// Whether version fits spec: a version alone means equality; "LOW-HIGH" is an
// inclusive range, where an empty bound is open.
bool version_in_range(const std::string& version, const std::string& spec);

}  // namespace update
