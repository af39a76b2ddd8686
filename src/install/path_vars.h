// The module-wide "$" variables that the install stage substitutes into the
// command lines of the older description format. Names are plain texts with
// their leading "$", tried in list order, so the order is behaviour.
#pragma once
#include <list>
#include <mutex>
#include <string>

namespace update {

struct path_var_t {
  std::string name;   // with its leading "$"
  std::string value;
};
using path_vars_t = std::list<path_var_t>;

// Written by init, by the install stage (the first four values) and by fini,
// which may come while an install reads it.
extern std::mutex path_vars_lock;
extern path_vars_t path_vars;  // guarded by path_vars_lock

// Replaces path_vars with the fifteen entries start-up builds. Takes the lock.
void build_path_vars();

// Replaces, in list order, every occurrence of each name in text with its
// value, searching on behind each value; no delimiters, so a name also
// matches the front of a longer one. Later names see earlier values.
void substitute_variables(std::string& text, const path_vars_t& variables);

}  // namespace update
