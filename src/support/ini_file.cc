#include "support/ini_file.h"

namespace {

bool is_line_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool is_value_blank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

CIniFileFormatError::CIniFileFormatError(size_t line)
    : std::runtime_error("Bad syntax at line " + std::to_string(line)) {}

namespace update {

void trim_line(std::string& line) {
  size_t first = 0;
  while (first < line.size() && is_line_blank(line[first])) ++first;
  if (first == line.size() || line[first] == '#') {
    line.clear();
    return;
  }
  size_t last = line.size();
  while (is_line_blank(line[last - 1])) --last;
  line.erase(last);
  line.erase(0, first);
}

bool is_comment_line(const std::string& line) {
  const char c = line.front();
  return c == ';' || c == '!' || c == '#';
}

bool parse_group_header(const std::string& line, std::string& name) {
  if (line.size() < 2 || line.front() != '[' || line.back() != ']') return false;
  name.assign(line, 1, line.size() - 2);
  trim_line(name);
  return true;
}

bool split_parameter(std::string& line, std::string& value) {
  const size_t equals = line.find('=');
  if (equals == std::string::npos) return false;
  size_t start = equals + 1;
  while (start < line.size() && is_value_blank(line[start])) ++start;
  size_t key_end = equals;
  while (key_end > 0 && is_value_blank(line[key_end - 1])) --key_end;
  if (key_end == 0) return false;
  value.assign(line, start, std::string::npos);
  line.erase(key_end);
  return true;
}

std::string value_in_groups(const CIniFile::group_list_t& groups, const std::string& group, const std::string& key,
                            const char* default_value) {
  if (groups.empty()) {
    if (default_value) return default_value;
    throw CIniFileGroupNotFound(group);
  }
  for (auto g = groups.rbegin(); g != groups.rend(); ++g) {
    auto found = (*g)->params.find(key);
    if (found != (*g)->params.end() && !found->second.empty()) return found->second.back();
  }
  if (default_value) return default_value;
  throw CIniFileVarNameNotFound(key, group);
}

}  // namespace update

CIniFile::CIniFile(std::istream& in) {
  group_t* current = nullptr;
  size_t line_number = 0;
  std::string line, name, value;
  while (std::getline(in, line)) {
    ++line_number;
    update::trim_line(line);
    if (line.empty() || update::is_comment_line(line)) continue;
    if (update::parse_group_header(line, name)) {
      current = &groups.emplace_back();
      current->name = name;
      groups_by_name.emplace(name, current);  // an earlier group of the name stays the one found
      continue;
    }
    if (!update::split_parameter(line, value)) throw CIniFileFormatError(line_number);
    if (!current) current = &groups.emplace_back();  // headerless: reachable only by groups_named
    current->params[line].push_back(std::move(value));
  }
}

CIniFile::group_t& CIniFile::find_group(const std::string& name) {
  auto found = groups_by_name.find(name);
  if (found != groups_by_name.end()) return *found->second;
  empty_group_.params.clear();  // a caller may have written to it; it must read as empty
  return empty_group_;
}

void CIniFile::groups_named(const std::string& name, group_list_t& out) {
  for (auto& g : groups)
    if (g.name == name) out.push_back(&g);
}

void CIniFile::groups_with_prefix(std::string_view prefix, group_list_t& out) {
  for (auto& g : groups)
    if (std::string_view(g.name).substr(0, prefix.size()) == prefix) out.push_back(&g);
}

std::string CIniFile::value_of(const std::string& group, const std::string& key, const char* default_value) const {
  auto found = groups_by_name.find(group);
  if (found == groups_by_name.end()) {
    if (default_value) return default_value;
    throw CIniFileGroupNotFound(group);
  }
  return found->second->value_of(key, default_value);
}

std::string CIniFile::group_t::value_of(const std::string& key, const char* default_value) const {
  auto found = params.find(key);
  if (found != params.end() && !found->second.empty()) return found->second.back();
  if (default_value) return default_value;
  throw CIniFileVarNameNotFound(key, name);
}

void CIniFile::group_t::params_with_prefix(std::string_view prefix,
                                           std::list<std::pair<std::string, std::string>>& out) const {
  for (auto p = params.lower_bound(std::string(prefix)); p != params.end(); ++p) {
    if (std::string_view(p->first).substr(0, prefix.size()) != prefix) break;
    for (const auto& v : p->second) out.emplace_back(p->first, v);
  }
}

std::string CIniFile::group_t::take_value(const std::string& key, const char* default_value) {
  auto found = params.find(key);
  if (found == params.end() || found->second.empty()) {
    if (default_value) return default_value;
    throw CIniFileVarNameNotFound(key, name);
  }
  if (found->second.size() > 1)
    throw std::runtime_error("duplicate parameter : '" + key + "', in section: " + name);
  std::string value = std::move(found->second.front());
  params.erase(found);
  return value;
}

void CIniFile::group_t::take_values(const std::string& key, std::list<std::string>& out) {
  auto found = params.find(key);
  if (found == params.end()) return;
  out.splice(out.end(), found->second);
  params.erase(found);
}
