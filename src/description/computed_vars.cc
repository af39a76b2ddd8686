// The computed variable sets: hash_of.X and version_of.X, and where the hash
// type of a hash_of. variable comes from. A value is computed when a text
// first refers to it and kept in the set; the hash cache keeps the file's
// hash for the rest of the run.
#include <algorithm>
#include <string_view>

#include "description/inivars.h"
#include "facts/hash_cache.h"
#include "facts/versions.h"
#include "platform/hash_file.h"

namespace update {

namespace {

constexpr std::string_view hash_of_prefix = "hash_of.";
constexpr std::string_view version_of_prefix = "version_of.";

std::string_view name_in(const CIniFile::group_t& section, size_t offset) {
  return std::string_view(section.name).substr(std::min(offset, section.name.size()));
}

// The first section whose NAME begins with name: a longer NAME counts.
const CIniFile::group_t* section_for(const CIniFile::group_list_t& sections, size_t offset, std::string_view name) {
  for (const CIniFile::group_t* s : sections)
    if (name_in(*s, offset).substr(0, name.size()) == name) return s;
  return nullptr;
}

// The base variable that a computed one stands on; thrown when it is empty.
std::string base_value(const inivars_t& base, const inivar_t& var, size_t prefix_length) {
  const std::string_view value = base.find(std::string_view(var.name).substr(prefix_length));
  if (value.empty()) throw "can't apply: " + var.name + ", empty value";
  return std::string(value);
}

}  // namespace

void hash_type_from_ini_t::get(std::string_view name, std::string& out) {
  const CIniFile::group_t* section = section_for(hash_sections, name_offset, name);
  if (!section) return;
  const std::string type = section->value_of("hash_type", "");
  if (type.empty()) return;
  out = getHashTypeDecorStr(type);
  if (out.empty()) throw "Unknown hash type: " + type + ", section: " + section->name;
}

void hash_type_from_str_t::get(std::string_view, std::string& out) {
  out = getHashTypeDecorStr(text);
  if (out.empty()) throw "Unknown hash type: " + text;
}

hash_of_inivars_t::hash_of_inivars_t(inivars_t& base, hash_cache_t& hashes) : base(base), hashes(hashes) {
  add_prefixed(base, std::string(hash_of_prefix));
}

void hash_of_inivars_t::add_value(const std::string& name, const std::string& value) {
  base.add(name, value);
  add(std::string(hash_of_prefix) + name, name);
}

bool hash_of_inivars_t::apply(inivar_t& var) {
  if (!var.value.empty()) return true;
  const std::string path = base_value(base, var, hash_of_prefix.size());
  // The type is looked up by the path, not by the variable's name.
  if (type_source) type_source->get(path, var.value);
  if (!hash_cache_t::get(hashes, path, var.value))
    throw "can't calc hash of: '" + path + "', variable: " + var.name;
  return true;
}

version_of_inivars_t::version_of_inivars_t(inivars_t& base, hash_cache_t& hashes,
                                           const CIniFile::group_list_t& hash_sections,
                                           const CIniFile::group_list_t& file_sections, size_t name_offset,
                                           const std::string& dir)
    : base(base),
      hashes(hashes),
      hash_sections(hash_sections),
      file_sections(file_sections),
      name_offset(name_offset),
      dir(dir) {
  add_prefixed(base, std::string(version_of_prefix));
}

bool version_of_inivars_t::apply(inivar_t& var) {
  if (!var.value.empty()) return true;
  const std::string name = var.name.substr(version_of_prefix.size());
  // A file that this description installs carries its own version record.
  const size_t file_name_offset = name_offset - (sizeof(".hash_to_version.") - sizeof(".file="));
  for (const CIniFile::group_t* s : file_sections) {
    if (name_in(*s, file_name_offset) == name) {
      current_version_of(dir, name, var.value, false);
      return true;
    }
  }
  const std::string path = base_value(base, var, version_of_prefix.size());
  const CIniFile::group_t* section = section_for(hash_sections, name_offset, name);
  if (!section) throw "hash_to_version section not found for variable: " + var.name + ", file: " + path;
  std::string hash = section->value_of("hash_type", "");
  if (!hash.empty()) {
    const std::string type = hash;
    hash = getHashTypeDecorStr(type);
    if (hash.empty()) throw "Unknown hash type: " + type + ", section: " + section->name + ", file: " + path;
  }
  if (!hash_cache_t::get(hashes, path, hash)) throw "can't calc hash of: '" + path + "', variable: " + var.name;
  // The table may list the bare digest or the decorated hash.
  const size_t colon = hash.find(':');
  if (colon != std::string::npos) {
    var.value = section->value_of("hash." + hash.substr(colon + 1), "");
    if (!var.value.empty()) return true;
  }
  var.value = section->value_of("hash." + hash, nullptr);
  return true;
}

}  // namespace update
