#include "description/patch_keys.h"

#include <string_view>
#include <utility>

#include "platform/hash_file.h"
#include "status/status.h"
#include "support/message_format.h"
#include "support/uri_join.h"

namespace update {

namespace {

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The text up to the next comma, trimmed; the rest behind it. False without
// a comma.
bool next_field(std::string_view& rest, std::string_view& field) {
  const size_t comma = rest.find(',');
  if (comma == std::string_view::npos) return false;
  field = trimmed(rest.substr(0, comma));
  rest.remove_prefix(comma + 1);
  return true;
}

// A hash of a type the hash library knows, with a digest behind it.
bool is_hash(std::string_view text) {
  const size_t colon = text.rfind(':');
  const std::string_view digits = colon == std::string_view::npos ? text : text.substr(colon + 1);
  if (digits.empty() || getHashTypeDecorStr(std::string(text)).empty()) return false;
  for (char c : digits)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
  return true;
}

}  // namespace

std::string read_patch_value(const std::string& text, patch_t& patch) {
  std::string_view rest = text, base, size, hash;
  if (!next_field(rest, base) || !next_field(rest, size) || !next_field(rest, hash)) return "not four fields: " + text;
  const std::string_view where = trimmed(rest);
  if (!is_hash(base)) return "not a hash: " + std::string(base);
  if (!parse_size(patch.size, std::string(size)) || patch.size == 0) return "bad size: " + std::string(size);
  if (!is_hash(hash)) return "not a hash: " + std::string(hash);
  if (where.empty()) return "no place to fetch it from: " + text;
  patch.base_hash = base;
  patch.hash = hash;
  patch.uri = where;
  return "";
}

std::string check_patched_entry(const file_entry_t& entry) {
  if (entry.patches.empty() || (!entry.hash.empty() && entry.size != 0)) return "";
  return "patch offered for file '" + entry.name + "' without its hash and size";
}

bool read_indexed_patches(const CIniFile::group_list_t& sections, const std::string& key, const std::string& base_uri,
                          std::list<file_entry_t>& entries) {
  for (const CIniFile::group_t* section : sections) {
    const auto values = section->params.find(key);
    if (values == section->params.end()) continue;
    for (const std::string& value : values->second) {
      std::string_view rest = value, name;
      file_entry_t* entry = nullptr;
      if (next_field(rest, name))
        for (auto& candidate : entries)
          if (candidate.name == name) entry = &candidate;
      patch_t patch;
      std::string error = entry ? read_patch_value(std::string(rest), patch) : "no file of the rule named: " + value;
      if (error.empty()) {
        std::string joined = base_uri;
        patch.uri = uri_join(joined, patch.uri);
        entry->patches.push_back(std::move(patch));
        error = check_patched_entry(*entry);
      }
      if (!error.empty()) {
        report_error(format_message("Parse 'update.ini' error: bad '%s': %s", key.c_str(), error.c_str()));
        return false;
      }
    }
  }
  return true;
}

}  // namespace update
