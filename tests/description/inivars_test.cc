#include "description/inivars.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using update::inivars_t;
using vars_t = std::vector<std::pair<std::string, std::string>>;

TEST(Inivars, ApplySubstitutesByTheTable) {
  const struct {
    vars_t vars;
    std::string text, expected;
    bool replaced;
  } rows[] = {
      {{}, "$(x)", "$(x)", false},
      {{{"x", "1"}}, "$(unknown) $(X) $(x", "$(unknown) $(X) $(x", false},
      {{{"x", "1"}}, "a$(x)b$(x)c", "a1b1c", true},
      {{{"x", ""}}, "a$(x)$(x)b", "ab", true},
      // List order decides how far a chain gets within one pass.
      {{{"x", "$(y)"}, {"y", "$(z)"}, {"z", "1"}}, "$(x)", "1", true},
      {{{"z", "1"}, {"y", "$(z)"}, {"x", "$(y)"}}, "$(x)", "1", true},
      {{{"z", "1"}, {"y", "$(z)"}, {"x", "$(y)"}, {"w", "$(x)"}}, "$(w)", "$(z)", true},  // three passes only
      {{{"a", "$(a)"}}, "$(a)", "$(a)", true},                                           // dies out, no error
      {{{"a", "$(a)x"}}, "$(a)", "$(a)xxx", true},  // an inserted value is not rescanned in its pass
      {{{"a", "1"}, {"a", "2"}}, "$(a)$(a)", "11", true},
      {{{"k", "b"}, {"t.b", "found"}}, "$(t.$(k))", "found", true},  // computed lookups
  };
  for (const auto& row : rows) {
    inivars_t set;
    for (const auto& [name, value] : row.vars) set.add(name, value);
    std::string text = row.text;
    EXPECT_EQ(set.apply(text, update::variable_delimiters), row.replaced) << row.text;
    EXPECT_EQ(text, row.expected) << row.text;
  }
}

TEST(Inivars, RefusesToGrowPast64KiB) {
  inivars_t set;
  set.add("a", "$(a)$(a)$(a)$(a)$(a)$(a)$(a)$(a)");
  EXPECT_THROW(set.apply_to_values(set, update::variable_delimiters), std::string);
}

// A computed set is asked before each use, and a refusal leaves the token.
class counting_vars_t : public inivars_t {
 public:
  using inivars_t::apply;
  bool apply(update::inivar_t& var) override {
    ++asked;
    if (var.name == "refused") return false;
    var.value = "computed";
    return true;
  }
  int asked = 0;
};

TEST(Inivars, ApplyAsksTheSetBeforeEachOccurrence) {
  counting_vars_t set;
  set.add("lazy", "");
  set.add("refused", "");
  std::string text = "$(lazy) $(refused) $(lazy) $(refused)";
  EXPECT_TRUE(set.apply(text, update::delimiters_t{"$(", ")"}));
  EXPECT_EQ(text, "computed $(refused) computed $(refused)");
  EXPECT_EQ(set.asked, 4);  // twice for lazy, once for refused; a second pass finds only refused
}

}  // namespace
