#include "description/section_rules.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "description/inivars.h"
#include "description/loader.h"
#include "planning/hash_cache.h"
#include "platform/hash_file.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

class SectionRules : public StatusTest {
 protected:
  // Loads "[T]" + text as a source of agent_version; rules come back as
  // "name=version/entries;" and a failure as its report.
  std::string load(const std::string& text, const std::string& agent = "1.0.0") {
    quiet("http://h/r/");
    dir_.write("u.ini", "[" + T + "]\n" + text);
    inivars_t vars;
    vars.add("agent_version", agent);
    vars.add("agent_bin", dir_.path("bin"));
    ini_ = update_ini_t{};
    hashes_ = hash_cache_t{};  // one per run
    ini_.uri = "http://h/r/?id=5";
    if (!load_update_ini(ini_, vars, hashes_, dir_.path(), "u.ini", 0)) return reported();
    std::string rules;
    for (const auto& r : ini_.rules)
      rules += r.file_name + "=" + r.update_version + "/" + std::to_string(r.entries.size()) + ";";
    return rules;
  }
  static std::string hash_of(const std::string& path, const std::string& type = "") {
    std::string hash;
    HashFileChecker::CalcHash(path, type, hash);
    return hash;
  }

  const std::string T = product_section_name();
  const std::string error = "Parse 'update.ini' error: ";
  update_ini_t ini_;
  hash_cache_t hashes_;
};

// The description of the format's documentation, on machines that differ in
// the agent's version and in the installed tool's version.
TEST_F(SectionRules, OneDescriptionServesMachinesDifferently) {
  std::filesystem::create_directory(dir_.path("bin"));
  const std::string v21 = hash_of(dir_.write("v21", "tool 2.1")), v15 = hash_of(dir_.write("v15", "tool 1.5"));
  const std::string text = "message=An update is available\nglobal.tool=$(agent_bin)/tool.exe\n"
                           "can_skip.driver.bin=yes\n[" + T + ".file=tool.exe]\napply_if.version_of.agent=1.0-\n"
                           "update_version=2.1\ndownload_hash=#GOST3411_256_2012:0a1b2c\nfilesize=1048576\n"
                           "exec=$(download_file) /install\n[" + T + ".file=driver.bin]\n"
                           "apply_if.version_of.tool=2.0-2.9\nupdate_version=$(map_to.driver.for_tool)\n"
                           "download_file=$(null)\nexec=$(agent_bin)/setup.exe\n[" + T + ".hash_to_version.tool]\n"
                           "hash." + v21.substr(19) + "=2.1\nhash." + v15 + "=1.5\n[" + T + ".map_to.driver]\n"
                           "for_tool=7.0\n";
  const struct {
    std::string agent, tool, rules;
  } rows[] = {
      {"1.0.0", "tool 2.1", "tool.exe=2.1/1;driver.bin=7.0/0;"},
      {"1.0.0", "tool 1.5", "tool.exe=2.1/1;driver.bin=/0;"},  // skipped, as can_skip allows
      {"0.9.7", "tool 2.1", error + "all sections has false conditions for file: tool.exe"},
      {"1.0.0", "tool 3", error + "parameter not found: 'hash." + hash_of(dir_.write("v3", "tool 3")) +
                              "', in section: [" + T + ".hash_to_version.tool]"},
  };
  for (const auto& row : rows) {
    dir_.write("bin/tool.exe", row.tool);
    EXPECT_EQ(load(text, row.agent), row.rules) << row.agent << " " << row.tool;
  }
  dir_.write("bin/tool.exe", "tool 2.1");
  ASSERT_EQ(load(text), rows[0].rules);
  const auto& tool = ini_.rules.front();
  EXPECT_EQ(tool.exec_list.front(), dir_.path("tool.exe /install"));
  EXPECT_EQ(tool.entries.front().uri, "http://h/r/tool.exe?id=5");
}

TEST_F(SectionRules, SubstitutesInTheOrderOfTheSets) {
  const std::pair<std::string, std::string> rows[] = {
      {"global.x=$(y)\nglobal.y=1\n[" + T + ".file=f]\nupdate_version=$(x)", "1"},
      {"global.a=$(a)\n[" + T + ".file=f]\nupdate_version=v$(a)", "v$(a)"},  // dies out, no error
      {"global.v=g\n[" + T + ".file=f]\nv=l\nupdate_version=$(v)$(global.v)", "lg"},
      {"[" + T + ".map_to.t]\nb=found\n[" + T + ".file=f]\nk=b\nupdate_version=$(map_to.t.$(k))", "found"},
      {"[" + T + ".file=f]\nupdate_version=$(update_uri)|$(update_uri_params)|$(file_name)", "http://h/r/|id=5|f"},
  };
  for (const auto& [text, version] : rows)
    EXPECT_EQ(load(text + "\ndownload_file=$(null)\nexec=x\n"), "f=" + version + "/0;") << text;
}

TEST_F(SectionRules, ConditionsChooseOrEndTheLoad) {
  const std::string tool = dir_.write("tool", "t"), digest = hash_of(tool);
  dir_.write("f.version", "4.2\n");
  const std::pair<std::string, std::string> rows[] = {
      {"apply_if.version_of.agent=1.0.0", "f=1/0;"},
      {"apply_if.version_of.agent=1.0", "f=/0;"},  // no range: text equality
      {"apply_if.version_of.agent= - 2", "f=1/0;"},
      {"f=x\napply_if.version_of.f=4.0-4.5", "f=1/0;"},  // the file's own version record
      {"apply_if.version_of.tool=3-", "f=/0;"},
      {"apply_if.hash_of.tool=" + digest, "f=1/0;"},
      {"apply_if.hash_of.tool=" + hash_of(tool, "#SHA256:"), "f=1/0;"},  // computed in the type it names
      {"apply_if.hash_of.tool=#SHA256:00", "f=/0;"},
      {"apply_if.exec=true", "f=1/0;"},
      {"apply_if.exec=false", "f=/0;"},
      {"apply_if.file_name=x", error + "unknown condition: apply_if.file_name, in section: " + T + ".file=f"},
      {"apply_if.hash_of.tool=#MD4:00", error + "Unknown hash type: #MD4:00"},
      {"apply_if.exec=$(e)\ne=", error + "empty value in condition: apply_if.exec, in section: " + T + ".file=f"},
  };
  for (const auto& [condition, rules] : rows)
    EXPECT_EQ(load("global.tool=" + tool + "\ncan_skip.f=1\n[" + T + ".hash_to_version.tool]\nhash." +
                   digest.substr(19) + "=2.5\n[" + T + ".file=f]\n" + condition +
                   "\nupdate_version=1\ndownload_file=$(null)\nexec=x\n"),
              rules)
        << condition;
}

TEST_F(SectionRules, FirstApplyingSectionWinsAndMalformedOnesInFrontEndTheLoad) {
  const std::string f = "[" + T + ".file=f]\ndownload_file=$(null)\n";
  const std::string no = f + "apply_if.version_of.agent=9\nupdate_version=0\nexec=x\n";
  const std::pair<std::string, std::string> rows[] = {
      {no + f + "update_version=2\nexec=x\n" + f + "update_version=3\n", "f=2/0;"},  // third: malformed, unread
      {f + "update_version=2\n" + f + "update_version=3\nexec=x\n", error + "missing required field 'exec' in "
                                                                            "section: " + T + ".file=f"},
      {no + f + "update_version=$(empty)\nempty=\nexec=x\n", error + "empty value of 'update_version' in section: " +
                                                                  T + ".file=f"},
      {"can_skip.f=YES\n" + no, "f=/0;"},
      {"can_skip.f=2\n" + no, error + "all sections has false conditions for file: f"},
      {f + "update_version=1\nexec=x\nfilesize=1\n", error + "'filesize' value no sense when download_file=$(null)"},
  };
  for (const auto& [text, rules] : rows) EXPECT_EQ(load(text), rules) << text;
  EXPECT_EQ(logged("skip file section #3: other section was chosen"), 1u);
  EXPECT_EQ(logged("skip file section #1: false condition #1: apply_if.version_of.agent = 9, checked value: 1.0.0"),
            4u);
}

}  // namespace
}  // namespace update::testing
