#include "facts/hash_cache.h"

#include <utility>

#include "platform/hash_file.h"

namespace update {

const char* const default_hash_type = "#GOST3411_256_2012:";

namespace {

// The first string whose first count bytes are the whole search text. A
// search text longer than count never matches; store relies on that.
string_list_t::iterator find_string(string_list_t& list, std::string_view search, size_t count) {
  for (auto s = list.begin(); s != list.end(); ++s)
    if (std::string_view(*s).substr(0, count) == search) return s;
  return list.end();
}

std::string_view up_to_nul(std::string_view text) { return text.substr(0, text.find('\0')); }

}  // namespace

size_t hash_prefix_length(std::string_view text) {
  if (text.empty() || (text[0] != '$' && text[0] != '#')) return 0;
  const size_t colon = text.find(':');
  return colon == std::string_view::npos ? 0 : colon + 1;
}

void hash_cache_t::declare(std::string_view decorated_path) {
  const size_t n = hash_prefix_length(decorated_path);
  const std::string_view type = n ? decorated_path.substr(0, n) : std::string_view(default_hash_type);
  string_list_t& list = entries[std::string(up_to_nul(decorated_path.substr(n)))];
  if (find_string(list, type, type.size()) == list.end()) list.emplace_back(type);
}

void hash_cache_t::store(const std::string& file, const std::string& hash) {
  const size_t n = hash_prefix_length(hash);
  if (file.empty() || n == 0) return;
  string_list_t& list = entries[file];
  auto found = find_string(list, hash, n);
  if (found != list.end())
    *found = hash;
  else
    list.push_back(hash);
}

bool hash_cache_t::get(hash_cache_t& hashes, std::string_view decorated_path, std::string& value) {
  const size_t n = hash_prefix_length(decorated_path);
  if (value.empty() && n) value.assign(decorated_path.substr(0, n));
  const std::string type = value.empty() ? std::string(default_hash_type) : value;
  const std::string file(decorated_path.substr(n));
  auto [entry, created] = hashes.entries.try_emplace(file);
  if (!created) {
    auto found = find_string(entry->second, type, type.size());
    if (found != entry->second.end()) {
      value = *found;
      return true;
    }
  }
  if (!HashFileChecker::CalcHash(file, type, value)) return false;
  entry->second.push_back(value);
  return true;
}

void hash_cache_t::carry_over(hash_cache_t& fresh, hash_cache_t& old) {
  for (auto& [file, old_list] : old.entries) {
    auto partner = fresh.entries.find(file);
    if (partner == fresh.entries.end()) continue;  // a dropped file keeps its old values
    for (auto& s : partner->second) {
      auto found = find_string(old_list, s, hash_prefix_length(s));
      if (found != old_list.end()) std::swap(s, *found);
    }
    old_list.clear();
  }
}

}  // namespace update
