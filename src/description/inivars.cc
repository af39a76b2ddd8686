#include "description/inivars.h"

namespace update {

const delimiters_t variable_delimiters{"$(", ")"};

// Three passes resolve references nested two deep within one set; a
// self-reference dies out instead of looping.
constexpr int substitution_passes = 3;
// Values may repeat their references, so a few lines can grow without bound.
constexpr size_t max_substituted_length = 65536;

bool inivars_t::apply(inivar_t&) { return true; }

void inivars_t::add(const std::string& name, const std::string& value) { vars.push_back({name, value}); }

std::string_view inivars_t::find(std::string_view name) const {
  for (const auto& v : vars)
    if (v.name == name) return v.value;
  return {};
}

bool inivars_t::apply(std::string& s, const delimiters_t& delimiters) {
  if (vars.empty()) return false;
  // Every token begins with the left delimiter: a text without one is done.
  if (!delimiters.first.empty() && s.find(delimiters.first) == std::string::npos) return false;
  bool any = false;
  std::string token, own;
  for (int pass = 0; pass < substitution_passes; ++pass) {
    bool replaced = false;
    for (auto& var : vars) {
      token.assign(delimiters.first).append(var.name).append(delimiters.second);
      for (size_t at = s.find(token); at != std::string::npos; at = s.find(token, at)) {
        if (!apply(var)) break;  // a computed variable that cannot be given a value now
        // A set applied to its own values may meet a variable's own text.
        const std::string* value = &var.value;
        if (value == &s) value = &own.assign(s);
        if (s.size() - token.size() + value->size() > max_substituted_length)
          throw "text too long after substitution of " + token + ": " + s.substr(0, 64) + "...";
        s.replace(at, token.size(), *value);
        at += value->size();  // the inserted value is not rescanned in this pass
        replaced = true;
      }
    }
    if (!replaced) break;
    any = true;
  }
  return any;
}

bool inivars_t::apply_to_values(inivars_t& other, const delimiters_t& delimiters) {
  bool any = false;
  for (auto& var : other.vars) any |= apply(var.value, delimiters);
  return any;
}

void inivars_t::apply_to_list(string_list_t& list, const delimiters_t& delimiters) {
  for (auto& text : list) apply(text, delimiters);
}

void inivars_t::apply_to_section(CIniFile::group_t& section, const delimiters_t& delimiters) {
  for (auto& [key, values] : section.params)
    if (!values.empty()) apply(values.back(), delimiters);
}

void inivars_t::add_prefixed(const inivars_t& source, const std::string& prefix) {
  for (const auto& var : source.vars) add(prefix + var.name, "");
}

}  // namespace update
