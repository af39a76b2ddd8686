// The working state of one reading of the file-section format, shared by its
// two halves: the top level (section_rules.cc) builds it in order, the loop
// over the file sections (file_sections.cc) uses it. Nothing here is owned.
#pragma once
#include <cstddef>
#include <string>

#include "description/inivars.h"
#include "records/update_ini.h"
#include "support/ini_file.h"

namespace update {

struct section_reader_t {
  CIniFile::group_t& product;  // the product section, or an empty one
  const std::string& section_name;
  update_ini_t& ini;
  const std::string& dir;
  hash_cache_t& hashes;
  const CIniFile::group_list_t& file_sections;  // "T.file=*" in file order
  const CIniFile::group_list_t& hash_sections;  // "T.hash_to_version.*" in file order
  size_t name_offset;                           // where NAME stands in a hash section's name
  inivars_t& globals;
  hash_of_inivars_t& global_hash_of;
  version_of_inivars_t& global_version_of;
  inivars_t& map_to;
  hash_type_from_ini_t& ini_hash_type;
};

// The loop over the file sections, after the top level has been read.
void read_file_sections(const section_reader_t& reader);

}  // namespace update
