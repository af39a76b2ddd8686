// The patches a description offers, in both formats. A patch is one value of
// its key, four fields split at the first three commas, blanks around each
// cut: "BASE_HASH, SIZE, HASH, WHERE". The indexed format puts the file's
// name in front ("patch.N=NAME, BASE_HASH, SIZE, HASH, WHERE"), the file
// sections have "download_patch=" in the file's section; a key may repeat,
// one patch per base.
#pragma once
#include <list>
#include <string>

#include "records/update_ini.h"
#include "support/ini_file.h"

namespace update {

// Fills patch from a value's four fields; where stays as written, for the
// caller to resolve. "" when it reads, else why not.
std::string read_patch_value(const std::string& text, patch_t& patch);

// "" when the entry may offer patches: the patched file is checked against
// its hash and size, so it must have both.
std::string check_patched_entry(const file_entry_t& entry);

// Reads every value of key (e.g. "patch.1") in the sections into the entry
// of the rule that the value names; where is joined to base_uri as a file's
// item is. False after a report through report_error when a value does not
// read, names no file of the rule, or comes for a file without hash or size.
bool read_indexed_patches(const CIniFile::group_list_t& sections, const std::string& key, const std::string& base_uri,
                          std::list<file_entry_t>& entries);

}  // namespace update
