// The indexed format of update.ini: every rule in the product section, under
// bare keys ("version") or numbered ones ("version.1", "version.2", ...),
// each with comma lists of files, hashes and sizes that match one to one.
#pragma once
#include <list>
#include <string>

#include "records/update_ini.h"

class CIniFile;

namespace update {

// key for index 0, key + "." + index otherwise.
std::string indexed_key(const std::string& key, unsigned index);

// Reads the rules of the product section into ini.rules. The bare rule is a
// fallback that stands only without numbered rules; a gap in the numbers ends
// the series. Mode 1 reads the bare keys only and gives false without a rule.
// A bad list is reported and gives false; a rule without any command throws
// CIniFileVarNameNotFound (the caller, load_update_ini, reports it).
bool read_indexed_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini,
                        const std::string& dir, int mode);

// Expands the comma lists into entries: name (the item behind its last
// separator), local_path (download_path + name), uri (base_uri joined with the
// whole item), hash and size. An empty hashes or sizes list is no column.
// False after a report through report_error when the lists do not match or
// files holds a byte the status file cannot carry.
bool read_file_list(const std::string& files, const std::string& hashes, const std::string& sizes,
                    const std::string& download_path, const std::string& base_uri, std::list<file_entry_t>& entries);

// Next item of a comma list: blanks skipped in front, kept behind. False at
// the end of the text; a "," at the very end adds no item.
bool next_list_item(const char*& cursor, std::string& item);

}  // namespace update
