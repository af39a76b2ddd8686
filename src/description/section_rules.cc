// The top level of the file-section format: the product section's globals
// and commands, the lookup tables, and the variable sets that every file
// section is evaluated with.
#include "description/section_rules.h"

#include <initializer_list>
#include <list>

#include "description/inivars.h"
#include "description/section_reader.h"
#include "support/ini_file.h"
#include "support/xml_text.h"

namespace update {

std::pair<std::string_view, std::string_view> uri_split_query(std::string_view uri) {
  const size_t mark = uri.rfind('?');
  if (mark == std::string_view::npos) return {uri, {}};
  return {uri.substr(0, mark), uri.substr(mark + 1)};
}

bool read_section_rules(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini,
                        const std::string& dir, const inivars_t& predefined, hash_cache_t& hashes) {
  CIniFile::group_list_t file_sections;
  ini_file.groups_with_prefix(section_name + ".file=", file_sections);
  if (file_sections.empty()) return false;

  CIniFile::group_list_t products;
  ini_file.groups_named(section_name, products);
  if (products.size() > 1) throw "must be only one section: '" + section_name + "'";
  CIniFile::group_t no_product;
  CIniFile::group_t& product = products.empty() ? no_product : *products.front();

  inivars_t globals;
  globals.vars = predefined.vars;
  globals.add("update_ini_hash", ini.hash);
  const auto [uri, uri_params] = uri_split_query(ini.uri);
  globals.add("update_uri", std::string(uri));
  globals.add("update_uri_params", std::string(uri_params));
  // Each global stands under its short name, then all again under the full
  // one, so that the short names are found first.
  std::list<std::pair<std::string, std::string>> global_params;
  product.params_with_prefix("global.", global_params);
  for (const auto& [key, value] : global_params) globals.add(key.substr(7), value);
  for (const auto& [key, value] : global_params) globals.add(key, value);
  globals.apply_to_values(globals, variable_delimiters);

  CIniFile::group_list_t hash_sections;
  ini_file.groups_with_prefix(section_name + ".hash_to_version.", hash_sections);
  for (CIniFile::group_t* section : hash_sections) globals.apply_to_section(*section, variable_delimiters);

  inivars_t map_to;
  CIniFile::group_list_t map_sections;
  ini_file.groups_with_prefix(section_name + ".map_to.", map_sections);
  for (const CIniFile::group_t* section : map_sections) {
    const std::string table = section->name.substr(section_name.size() + 1) + ".";
    for (const auto& [key, values] : section->params)
      if (!values.empty()) map_to.add(table + key, values.back());
  }

  const size_t name_offset = section_name.size() + 17;  // behind "T.hash_to_version."
  hash_of_inivars_t global_hash_of(globals, hashes);
  version_of_inivars_t global_version_of(globals, hashes, hash_sections, file_sections, name_offset, dir);
  hash_type_from_ini_t ini_hash_type(hash_sections, name_offset);
  // The agent's version is known from the start and never computed.
  global_version_of.add("version_of.agent", std::string(globals.find("agent_version")));

  // Only global sets exist here: a hash_of. or version_of. in these commands
  // can only name a global variable.
  auto take_commands = [&](const char* key, string_list_t& list) {
    product.take_values(key, list);
    for (inivars_t* set : std::initializer_list<inivars_t*>{&globals, &global_hash_of, &global_version_of, &map_to})
      set->apply_to_list(list, variable_delimiters);
  };
  take_commands("exec_before_update", ini.exec_before_update);
  take_commands("status_hash_of", ini.status_hash_of);
  // The status keeps a hash under the file's name.
  for (const auto& path : ini.status_hash_of)
    if (has_xml_forbidden_byte(path)) throw "control character in file name: " + xml_forbidden_shown(path);

  read_file_sections({product, section_name, ini, dir, hashes, file_sections, hash_sections, name_offset, globals,
                      global_hash_of, global_version_of, map_to, ini_hash_type});
  return true;
}

}  // namespace update
