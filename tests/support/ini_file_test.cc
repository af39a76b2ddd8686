#include "support/ini_file.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <sstream>

namespace {

std::unique_ptr<CIniFile> parse(const std::string& text) {
  std::istringstream in(text);
  return std::make_unique<CIniFile>(in);
}

// What a call raises, by kind: "group X", "key K in G", "format ...", "other ...".
std::string raised_by(const std::function<void()>& call) {
  try {
    call();
  } catch (const CIniFileGroupNotFound& e) {
    return std::string("group ") + e.what();
  } catch (const CIniFileVarNameNotFound& e) {
    return std::string("key ") + e.what() + " in " + e.group;
  } catch (const CIniFileFormatError& e) {
    return std::string("format ") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("other ") + e.what();
  }
  return "";
}

TEST(IniFileSyntax, BadLinesAreReportedWithTheirLineNumber) {
  const std::pair<std::string, std::string> rows[] = {
      {"\n\nbad\n", "format Bad syntax at line 3"},  // blank lines count
      {"\r\n\r\nbad\r\n", "format Bad syntax at line 3"},
      {"[a]\n; c\n! c\n# c\nk=v\n\tbad line\n", "format Bad syntax at line 6"},
      {"key", "format Bad syntax at line 1"},
      {" \t= value", "format Bad syntax at line 1"},
      {"[x", "format Bad syntax at line 1"},
      {"\xEF\xBB\xBF[a]\nk=v\n", "format Bad syntax at line 1"},  // a byte order mark is not removed
      {"k=v\nlast", "format Bad syntax at line 2"},
      {"", ""},
      {"[a=b]", ""},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(raised_by([&] { parse(text); }), expected) << text;
}

TEST(IniFileSyntax, KeysValuesAndHeadersAreCutAsWritten) {
  auto ini = parse(
      "\xEF\xBB\xBFk=bom\n key = value \nspaced\t=\t  v  w\r\na=b ; c\nk2=v=w\n[x=1\nempty=\n"
      "[ name ]\n[a=b]\n[#x]\nlast=no newline");
  ASSERT_EQ(ini->groups.size(), 4u);
  const std::map<std::string, std::list<std::string>> expected{
      {"\xEF\xBB\xBFk", {"bom"}}, {"key", {"value"}}, {"spaced", {"v  w"}}, {"a", {"b ; c"}},
      {"k2", {"v=w"}},            {"[x", {"1"}},      {"empty", {""}}};
  EXPECT_EQ(ini->groups.front().params, expected);
  std::string names;
  for (const auto& g : ini->groups) names += "[" + g.name + "]";
  EXPECT_EQ(names, "[][name][a=b][]");  // a header wins over its "="; "#" empties a name
  EXPECT_EQ(ini->groups.back().value_of("last", nullptr), "no newline");
}

TEST(IniFileGroups, RepeatedGroupsAndKeysDifferByLookup) {
  auto ini = parse("k=headless\n[a]\nk=1\nonly_first=f\n[b]\nk=b\n[a]\nk=2\nk=3\n[ab]\nk=ab\n");
  EXPECT_EQ(ini->value_of("a", "k", nullptr), "1");  // the first group of the name
  EXPECT_EQ(raised_by([&] { ini->value_of("", "k", nullptr); }), "group ");
  EXPECT_TRUE(ini->find_group("").params.empty());

  CIniFile::group_list_t named, headless, prefixed;
  ini->groups_named("a", named);
  ini->groups_named("", headless);
  ini->groups_with_prefix("a", prefixed);
  ASSERT_EQ(named.size(), 2u);
  ASSERT_EQ(headless.size(), 1u);
  EXPECT_EQ(headless[0]->value_of("k", nullptr), "headless");
  EXPECT_EQ(update::value_in_groups(named, "a", "k", nullptr), "3");  // later group, later value
  EXPECT_EQ(update::value_in_groups(named, "a", "only_first", nullptr), "f");
  ASSERT_EQ(prefixed.size(), 3u);
  EXPECT_EQ(prefixed[1], named[1]);
  EXPECT_EQ(prefixed[2]->name, "ab");
}

TEST(IniFileLookups, MissingGroupsAndKeysRaiseOnlyWithoutADefault) {
  auto ini = parse("[a]\nk=v\n");
  CIniFile::group_list_t none, named;
  ini->groups_named("a", named);
  EXPECT_EQ(ini->value_of("zz", "k", ""), "");
  EXPECT_EQ(ini->value_of("a", "zz", "dflt"), "dflt");
  EXPECT_EQ(update::value_in_groups(none, "zz", "k", ""), "");
  EXPECT_EQ(update::value_in_groups(named, "a", "zz", ""), "");
  EXPECT_EQ(raised_by([&] { ini->value_of("zz", "k", nullptr); }), "group zz");
  EXPECT_EQ(raised_by([&] { update::value_in_groups(none, "zz", "k", nullptr); }), "group zz");
  EXPECT_EQ(raised_by([&] { update::value_in_groups(named, "a", "zz", nullptr); }), "key zz in a");
  EXPECT_EQ(raised_by([&] { ini->value_of("a", "zz", nullptr); }), "key zz in a");
  EXPECT_EQ(raised_by([&] { ini->find_group("a").take_value("zz", nullptr); }), "key zz in a");
}

TEST(IniFileLookups, TakingEmptiesTheStoreWhileReadingLeavesIt) {
  auto ini = parse("[s]\nk=1\nk=2\none=x\n");
  auto& group = ini->find_group("s");
  // Deliberately not one of the engine's own exceptions.
  EXPECT_EQ(raised_by([&] { group.take_value("k", ""); }), "other duplicate parameter : 'k', in section: s");
  EXPECT_EQ(group.value_of("k", nullptr), "2");  // a refused take leaves the key

  std::list<std::string> values{"earlier"};
  group.take_values("k", values);
  group.take_values("k", values);
  EXPECT_EQ(values, (std::list<std::string>{"earlier", "1", "2"}));
  EXPECT_EQ(group.take_value("one", nullptr), "x");
  EXPECT_EQ(group.take_value("one", "gone"), "gone");
  EXPECT_TRUE(group.params.empty());
}

TEST(IniFileLookups, ParamsWithPrefixWalkKeysInByteOrder) {
  auto ini = parse("[s]\nglobal.b=2\nglobal.a=1\nglobal.a=1b\nglobalx=no\nglob=no\nglobal.\xe9=3\nglobal.B=0\n");
  std::list<std::pair<std::string, std::string>> found;
  ini->find_group("s").params_with_prefix("global.", found);
  const std::list<std::pair<std::string, std::string>> expected{
      {"global.B", "0"}, {"global.a", "1"}, {"global.a", "1b"}, {"global.b", "2"}, {"global.\xe9", "3"}};
  EXPECT_EQ(found, expected);
}

}  // namespace
