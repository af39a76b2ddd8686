// Named text variables with $(NAME) substitution.
#pragma once
#include <list>
#include <string>
#include <string_view>
#include <utility>

namespace update {

struct inivar_t {
  std::string name;
  std::string value;

  // Gives a variable its value before it is used.
  class apply_cb_t {
   public:
    virtual ~apply_cb_t() = default;
    virtual bool apply(inivar_t& var) = 0;
  };
};

// The delimiters of a variable reference, "$(" and ")".
using delimiters_t = std::pair<std::string_view, std::string_view>;
extern const delimiters_t variable_delimiters;

// An ordered list of variables in insertion order; names need not be unique.
class inivars_t : public inivar_t::apply_cb_t {
 public:
  bool apply(inivar_t& var) override;  // plain variables have their value: true

  void add(const std::string& name, const std::string& value);
  // The value of the first variable of exactly this name, or an empty view.
  std::string_view find(std::string_view name) const;
  // Substitutes references in s; true if at least one was made.
  bool apply(std::string& s, const delimiters_t& delimiters);

  std::list<inivar_t> vars;
};

}  // namespace update
