// The module-wide "$" variables that the install stage substitutes into the
// command lines of the older description format. Names are plain texts with
// their leading "$", tried in list order, so the order is behaviour.
#pragma once
#include <list>
#include <string>

namespace update {

struct path_var_t {
  std::string name;   // with its leading "$"
  std::string value;
};

// Written by init, by the install stage (the first four values) and by fini;
// not synchronised, since those never overlap with each other.
extern std::list<path_var_t> path_vars;

// Replaces path_vars with the fifteen entries start-up builds.
void build_path_vars();

// text without one trailing separator ("\" or "/"), if it has one.
std::string without_trailing_separator(const std::string& text);

}  // namespace update
