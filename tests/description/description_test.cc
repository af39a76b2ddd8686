// Loading a description: failures and their reports, the indexed format and
// its file lists, the settings, variables, and the file-section format with
// its conditions.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <sstream>
#include <tuple>

#include "description/inivars.h"
#include "description/loader.h"
#include "description/rollout.h"
#include "description/section_rules.h"
#include "facts/hash_cache.h"
#include "platform/hash_file.h"
#include "status/status_fixture.h"
#include "support/ini_file.h"

namespace update::testing {
namespace {

// Loads the product section's body as the saved description into a fresh
// record; a failure lands in the current message, where the first stands.
class LoadUpdateIni : public StatusTest {
 protected:
  bool load(const std::string& body, int mode = 0) {
    quiet("http://source/");
    dir_.write("corvid_update.ini", "[" + product_section_name() + "]\n" + body);
    ini_ = update_ini_t{};
    return load_update_ini(ini_, vars_, hashes_, dir_.path(), "corvid_update.ini", mode);
  }
  update_ini_t ini_;
  inivars_t vars_;
  hash_cache_t hashes_;
};

TEST_F(LoadUpdateIni, FailuresEndWithTheirReport) {
  const std::string not_found = "Parse 'update.ini' error: parameter not found: ";
  const std::string section = ", in section: [" + product_section_name() + "]";
  const std::string rule = "version=1\nexec=x\n", patched = "file=a\nhash=1\nfilesize=5\n",
                    patch = " #GOST3411_256_2012:ab, 7, $sha256:cd, p/a.patch",
                    bad_patch = "Parse 'update.ini' error: bad 'patch': ";
  const std::pair<std::string, std::string> rows[] = {  // "": it loads
      {"version=1\nexec=x\n\nbroken line\n", "Parse 'update.ini' error: Bad syntax at line 5"},
      {"message=hello\n", not_found + "'version'" + section}, {"version.1=2\n", not_found + "'exec.1'" + section},
      {"version=1\nfile=a\nexec=x\n", "Parse 'update.ini' error: missing required field 'hash'. Turn off local "
                                      "parameter '" + LPARAMS::server::verify_downloads_name() +
                                      "' to disable downloaded files verification"},
      {rule + "file=a,b\nhash=1\n", "files count greater than hashes count: a,b > 1"},
      {rule + "file=a\nhash=1,2\n", "files count less than hashes count: a < 1,2"},
      {rule + "file=a\nhash=1\nfilesize=1,2\n", "files count less than sizes count: a < 1,2"},
      {rule + "file=a,b\nhash=1,2\nfilesize=10\n", "files count greater than sizes count: a,b > 10"},
      {rule + "file=a,b\nhash=1,2\nfilesize=10,-1\n", "bad filesize value: -1"},
      {rule + "file=x/a,y\\a\nhash=1,2\n", "duplicated file name: y\\a"},
      {rule + "file=a,,b\nhash=1,2,3\n", "empty file name specified in file list(#2): a,,b"},
      {"version.1=1\nexec.1=x\nversion.2=2\nexec.2=x\nfile.2=a,\nhash.2=1,2\n", "files count less than hashes count: a, < 1,2"},
      {rule + "file=a\nhash=#T:\"<&\n", ""},  // markup is the status file's to escape
      {rule + "file=a,A\nhash=1,2\n", ""},             // names compare with regard to case
      {rule + "file=a,\nhash=1,\nfilesize=5,\n", ""},  // a final comma adds no item
      {rule + "file=a,b\nhash=,h2\n", ""},              // an empty hash counts as the first file's
      {rule + "file=a,b\x01" "c\nhash=1,2\n", "control character in file name: a,b\\x01c"},
      {"version=1\x01\nexec=x\n", "unusable character in version: 1\\x01"},  // XML cannot carry it
      {rule + "file=a,b\nhash=1,\x02\n", "unusable character in hash: 1,\\x02"},
      {rule + "file=a,x/corvid_update_serials\nhash=1,2\n", "file name is one of the module's own files: corvid_update_serials"},
      {rule + "file=corvid_update.lock\nhash=1\n", "file name is one of the module's own files: corvid_update.lock"},
      {rule + "file=x/..\nhash=1\n", "file name leaves the update directory: .."},
      {"version.1=1\nexec.1=x\nrollout.1=ten\n", "Parse 'update.ini' error: bad rollout share: ten (a percentage, 0 to 100)"},
      {"version.1=1\nexec.1=x\nrollout.1=5\n", "Parse 'update.ini' error: cannot read the machine's identity from " + dir_.path("none")},
      {rule + patched + "patch=a," + patch + "\n", ""},
      {rule + patched + "patch=b," + patch + "\n", bad_patch + "no file of the rule named: b," + patch},
      {rule + "file=a\nhash=1\npatch=a," + patch + "\n",
       bad_patch + "patch offered for file 'a' without its hash and size"},
      {rule + patched + "patch=a, $sha256:1, 0, $sha256:2, p\n", bad_patch + "bad size: 0"},
      {rule + patched + "patch=a, #MD4:1, 9, $sha256:2, p\n", bad_patch + "not a hash: #MD4:1"},
      {rule + patched + "patch=a, $sha256:1, 9, $sha256:2x, p\n", bad_patch + "not a hash: $sha256:2x"},
      {rule + patched + "patch=a, $sha256:1, 9, $sha256:2\n", bad_patch + "not four fields:  $sha256:1, 9, $sha256:2"},
      {rule + patched + "patch=a, $sha256:1, 9, $sha256:2, \n",
       bad_patch + "no place to fetch it from:  $sha256:1, 9, $sha256:2,"},
  };
  LPARAMS::server::set_machine_id_file(dir_.path("none"));
  for (const auto& [text, message] : rows) {
    EXPECT_EQ(load(text), message.empty()) << text;
    EXPECT_EQ(reported(), message) << text;
  }
  LPARAMS::server::set_verify_downloads(false);
  EXPECT_TRUE(load("version=1\nfile=a\nexec=x\n"));

  EXPECT_FALSE(load_update_ini(ini_, vars_, hashes_, dir_.path(), "absent.ini", 1));
  EXPECT_EQ(reported(), "");  // start-up does not report a missing file
  EXPECT_FALSE(load_update_ini(ini_, vars_, hashes_, dir_.path(), "absent.ini", 0));
  EXPECT_EQ(reported(), "Can't open file for reading: " + dir_.path("absent.ini"));
}

// The bare rule is a fallback: any numbered rule replaces it, and start-up
// (mode 1) reads it alone.
TEST_F(LoadUpdateIni, BareRuleStandsOnlyWithoutNumberedOnes) {
  const std::string bare = "version=1\nfile=a\nhash=h\nexec=x\n";
  const std::string first = "version.1=2\nfile.1=p/b,c\nhash.1=h1,h2\nexec.1=y\n";
  // rules: display names, main rules marked with "*"
  const struct { std::string body; int mode; bool result; std::string rules; } rows[] = {
      {bare, 0, true, "*1;"}, {bare + first, 0, true, "2 (p/b,c);"}, {bare + first, 1, true, "*1;"},
      {first, 1, false, ""}, {first + "version.2=3\nexec.2=z\n", 0, true, "2 (p/b,c);3 ();"},
      {first + "version.3=4\nexec.3=z\n", 0, true, "2 (p/b,c);"},  // a gap ends the series
      {first + "rollout.1=0\nversion.2=3\nexec.2=z\n", 0, true, "3 ();"},  // out of its rollout; the series goes on
      {first + "rollout.1=100%\n" + bare + "rollout=0\n", 0, true, "2 (p/b,c);"},  // the bare rule takes none
  };
  LPARAMS::server::set_machine_id_file(dir_.write("machine-id", "0123456789abcdef\n"));
  for (const auto& row : rows) {
    EXPECT_EQ(load(row.body, row.mode), row.result) << row.body;
    std::string rules;
    for (const auto& r : ini_.rules) {
      rules += (r.is_main ? "*" : "") + r.display_name + ";";
      EXPECT_TRUE(r.owner == &ini_ && r.legacy_exec);
    }
    EXPECT_EQ(rules, row.rules) << row.body << " mode " << row.mode;
  }
}

TEST_F(LoadUpdateIni, ReadsTheFieldsOfARuleAndSettingsOnlyInARun) {
  const std::string text = "version=3.1\nexec=x\nconnect_timeout=7\nversion.1=2.0\nfile.1=bin/a.exe,\t b.dll\n"
                           "hash.1=#T:1 ,#T:2\nfilesize.1=10,20\nexec_sys.1=install.sh\nexec_user.1=notify\n"
                           "exec_wait.1=1\nexec_user_wait.1=0\n";
  ASSERT_TRUE(load(text));
  EXPECT_EQ(ini_.connect_timeout, 7);
  ASSERT_EQ(ini_.rules.size(), 1u);
  const auto& rule = ini_.rules.front();
  EXPECT_EQ(rule.update_version, "2.0");
  EXPECT_EQ(rule.download_path, dir_.path());  // the load's directory by default
  EXPECT_EQ(rule.exec_sys + "|" + rule.exec_user + "|" + rule.exec_sys_wait + "|" + rule.exec_user_wait,
            "install.sh|notify|1|0");
  ASSERT_EQ(rule.entries.size(), 2u);
  const auto& a = rule.entries.front();
  // Directories count on the server and not on the disk; list items keep
  // blanks behind and lose those in front.
  EXPECT_EQ(a.uri + "|" + a.name + "|" + a.local_path + "|" + a.hash + "|" + std::to_string(a.size),
            "/bin/a.exe|a.exe|" + dir_.path("a.exe") + "|#T:1 |10");
  EXPECT_EQ(rule.entries.back().name + " " + std::to_string(rule.entries.back().size), "b.dll 20");

  ASSERT_TRUE(load(text, 1));
  EXPECT_EQ(ini_.connect_timeout, 300);  // the constructor's value stands

  // A download path ends in exactly one separator, unless it is nothing else.
  for (const auto& [value, expected] : {std::pair{"C:\\dir\\\\/", "C:\\dir/"}, {"/", "//"}, {"", "/"}}) {
    ASSERT_TRUE(load(std::string("version=1\nexec=x\ndownload_path=") + value + "\n")) << value;
    EXPECT_EQ(ini_.rules.front().download_path, expected) << value;
  }
}

// Every setting as " key=value ", so that a row names the one it checks.
std::string settings_of(const std::string& text) {
  std::istringstream in("[" + product_section_name() + "]\n" + text + "\n");
  CIniFile ini_file(in);
  update_ini_t ini;
  read_params(ini_file, product_section_name(), ini);
  std::ostringstream out;
  out << " connect_timeout=" << ini.connect_timeout << " download_lowtime=" << ini.download_lowtime
      << " download_lowspeed=" << ini.download_lowspeed << " download_keepalive_interval="
      << ini.download_keepalive_interval << " download_retry=" << ini.download_retry
      << " download_rollback_size=" << ini.download_rollback_size << " download_fsync_size="
      << ini.download_fsync_size << " timeout=" << ini.timeout << " message=" << ini.message
      << " silent=" << ini.silent << " tcp_nodelay=" << ini.tcp_nodelay << " ";
  return out.str();
}

TEST(ReadParams, ValueRulesByTheTable) {
  const std::string head = "[" + product_section_name() + "]\n";
  const std::pair<std::string, std::string> rows[] = {
      // A loaded record never keeps a constructor value.
      {"", "connect_timeout=60 download_lowtime=10 download_lowspeed=10 download_keepalive_interval=30 "
           "download_retry=0 download_rollback_size=0 download_fsync_size=0 timeout=0 message= silent=1 tcp_nodelay="},
      {"connect_timeout=12abc", "connect_timeout=60"}, {"connect_timeout=-99999999999", "connect_timeout=-2147483648"},
      {"timeout=20\nmessage_timeout=5", "timeout=5"}, {"message=hello", "silent="},
      {"download_rollback_size=9223372036854775807", "download_rollback_size=9223372036854775807"},
      {"download_rollback_size=9223372036854775808", "download_rollback_size=0"},
      // Repeated product sections are searched from the last.
      {"connect_timeout=5\nmessage=a\n" + head, "connect_timeout=5"},
      {"message=a\n[other]\nmessage=b\n" + head + "message=c", "message=c"},
  };
  for (const auto& [lines, expected] : rows)
    EXPECT_NE(settings_of(lines).find(" " + expected + " "), std::string::npos) << lines << "\n" << settings_of(lines);
}

using vars_t = std::vector<std::pair<std::string, std::string>>;

TEST(Inivars, ApplySubstitutesByTheTable) {
  const struct { vars_t vars; std::string text, expected; bool replaced; } rows[] = {
      {{}, "$(x)", "$(x)", false}, {{{"x", "1"}}, "x", "x", false},
      {{{"x", "1"}}, "$(unknown) $(X) $(x", "$(unknown) $(X) $(x", false}, {{{"x", "1"}}, "a$(x)b$(x)c", "a1b1c", true},
      // List order decides how far a chain gets within one pass.
      {{{"x", "$(y)"}, {"y", "$(z)"}, {"z", "1"}}, "$(x)", "1", true},
      {{{"z", "1"}, {"y", "$(z)"}, {"x", "$(y)"}}, "$(x)", "1", true},
      {{{"z", "1"}, {"y", "$(z)"}, {"x", "$(y)"}, {"w", "$(x)"}}, "$(w)", "$(z)", true},  // three passes only
      {{{"a", "$(a)"}}, "$(a)", "$(a)", true},                                           // dies out, no error
      {{{"a", "$(a)x"}}, "$(a)", "$(a)xxx", true},  // an inserted value is not rescanned in its pass
      {{{"k", "b"}, {"t.b", "found"}}, "$(t.$(k))", "found", true},  // computed lookups
  };
  for (const auto& row : rows) {
    inivars_t set;
    for (const auto& [name, value] : row.vars) set.add(name, value);
    std::string text = row.text;
    EXPECT_EQ(set.apply(text, variable_delimiters), row.replaced) << row.text;
    EXPECT_EQ(text, row.expected) << row.text;
  }
}

TEST(Inivars, RefusesToGrowPast64KiB) {
  inivars_t set;
  set.add("a", "$(a)$(a)$(a)$(a)$(a)$(a)$(a)$(a)");
  EXPECT_THROW(set.apply_to_values(set, variable_delimiters), std::string);
  for (const size_t size : {size_t{65535}, size_t{65536}, size_t{65537}}) {
    inivars_t one;
    one.add("x", std::string(size - 2, 'v'));
    std::string text = "<$(x)>";
    bool grown = false;
    try {
      grown = one.apply(text, variable_delimiters) && text == "<" + one.vars.front().value + ">";
    } catch (const std::string&) {
    }
    EXPECT_EQ(grown, size <= 65536) << size;
  }
}

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
                           "exec_before_update=$(tool) --check\nstatus_hash_of=$(tool)\n"
                           "can_skip.driver.bin=yes\n[" + T + ".file=tool.exe]\napply_if.version_of.agent=1.0-\n"
                           "update_version=2.1\ndownload_hash=#GOST3411_256_2012:0a1b2c\"<&\nfilesize=1048576\n"
                           "exec=$(download_file) /install\n"
                           "download_patch=$sha256:1, 9, $sha256:2, p/$(update_version)\n"
                           "download_patch=$sha256:3, 9, $sha256:4, http://p/\n[" + T + ".file=driver.bin]\n"
                           "apply_if.version_of.tool=2.0-2.9\nupdate_version=$(map_to.driver.for_tool)\n"
                           "download_file=$(null)\nexec=$(agent_bin)/setup.exe\n[" + T + ".hash_to_version.tool]\n"
                           "hash." + v21.substr(19) + "=2.1\nhash." + v15 + "=1.5\n[" + T + ".map_to.driver]\n"
                           "for_tool=7.0\n";
  const struct { std::string agent, tool, rules; } rows[] = {
      {"1.0.0", "tool 2.1", "tool.exe=2.1/1;driver.bin=7.0/0;"},
      {"1.0.0", "tool 1.5", "tool.exe=2.1/1;driver.bin=/0;"},  // a decorated hash in the table; skipped
      {"1.0.0", "tool 3", error + "parameter not found: 'hash." + hash_of(dir_.write("v3", "tool 3")) +
                              "', in section: [" + T + ".hash_to_version.tool]"},
  };
  for (const auto& row : rows) {
    dir_.write("bin/tool.exe", row.tool);
    EXPECT_EQ(load(text, row.agent), row.rules) << row.agent << " " << row.tool;
  }
  dir_.write("bin/tool.exe", "tool 2.1");
  ASSERT_EQ(load(text), rows[0].rules);
  EXPECT_EQ(ini_.exec_before_update, string_list_t{dir_.path("bin/tool.exe --check")});
  EXPECT_EQ(ini_.status_hash_of, string_list_t{dir_.path("bin/tool.exe")});
  const auto& tool = ini_.rules.front();
  EXPECT_EQ(tool.exec_list.front(), dir_.path("tool.exe /install"));
  const auto& entry = tool.entries.front();  // nothing of it is fetched yet
  EXPECT_EQ(entry.uri + "|" + entry.local_path + "|" + entry.hash + "|" + std::to_string(entry.size) +
                (entry.ready ? "|ready" : ""),
            "http://h/r/tool.exe?id=5|" + dir_.path("tool.exe") + "|#GOST3411_256_2012:0a1b2c\"<&|1048576");
  // Where a patch comes from is worked out as download_uri is.
  EXPECT_EQ(entry.patches.front().uri, "http://h/r/p/2.1?id=5");
  EXPECT_EQ(entry.patches.back().uri, "http://p/");
}

// The hash type of a hash_to_version section counts for version_of. by the
// variable's name, and for hash_of. by the file's path.
TEST_F(SectionRules, SubstitutesInTheOrderOfTheSets) {
  const std::string tool = dir_.write("tool", "t"), f = "[" + T + ".file=f]\nt=" + tool;
  dir_.write("f.version", "4.2\n");
  const std::string by_name = "[" + T + ".hash_to_version.t]\nhash_type=",
                    by_path = "[" + T + ".hash_to_version." + tool + "]\nhash_type=";
  const std::pair<std::string, std::string> rows[] = {
      {"global.x=$(y)\nglobal.y=1\"<&\n[" + T + ".file=f]\nupdate_version=$(x)", "f=1\"<&/0;"},  // markup is carried
      {"global.a=$(a)\n[" + T + ".file=f]\nupdate_version=v$(a)", "f=v$(a)/0;"},  // dies out, no error
      {"global.v=g\n[" + T + ".file=f]\nv=l\nupdate_version=$(v)$(global.v)", "f=lg/0;"},
      {"[" + T + ".map_to.t]\nb=found\n[" + T + ".file=f]\nk=b\nupdate_version=$(map_to.t.$(k))", "f=found/0;"},
      {"[" + T + ".file=f]\nupdate_version=$(update_uri)|$(update_uri_params)|$(file_name)|$(current_version)",
       "f=http://h/r/|id=5|f|4.2/0;"},
      {by_path + "SHA256\n" + f + "\nupdate_version=$(hash_of.t)", "f=" + hash_of(tool, "#SHA256:") + "/0;"},
      {by_name + "MD4\n" + f + "\nupdate_version=$(hash_of.t)", "f=" + hash_of(tool) + "/0;"},
      {by_path + "MD4\n" + f + "\nupdate_version=$(hash_of.t)",
       error + "Unknown hash type: MD4, section: " + T + ".hash_to_version." + tool},
      {by_name + "MD4\n" + f + "\nupdate_version=$(version_of.t)",
       error + "Unknown hash type: MD4, section: " + T + ".hash_to_version.t, file: " + tool},
  };
  for (const auto& [text, rules] : rows) EXPECT_EQ(load(text + "\ndownload_file=$(null)\nexec=x\n"), rules) << text;
}

TEST_F(SectionRules, ConditionsChooseOrEndTheLoad) {
  const std::string tool = dir_.write("tool", "t"), digest = hash_of(tool);
  dir_.write("f.version", "4.2\n");
  const std::pair<std::string, std::string> rows[] = {
      {"apply_if.version_of.agent=1.0.0", "f=1/0;"},
      {"apply_if.version_of.agent=1.0", "f=/0;"},  // no range: text equality
      {"f=x\napply_if.version_of.f=4.0-4.5", "f=1/0;"},  // the file's own version record
      {"apply_if.hash_of.tool=" + hash_of(tool, "#SHA256:"), "f=1/0;"},  // computed in the type it names
      {"d=$(tool)\nt=$(d)\napply_if.hash_of.t=" + digest, "f=1/0;"},  // a local's value takes locals, then globals
      {"apply_if.exec=false", "f=/0;"},
      {"apply_if.file_name=x", error + "unknown condition: apply_if.file_name, in section: " + T + ".file=f"},
      {"apply_if.hash_of.tool=#MD4:00", error + "Unknown hash type: #MD4:00"},
      {"apply_if.exec=$(e)\ne=", error + "empty value in condition: apply_if.exec, in section: " + T + ".file=f"},
      {"apply_if.rollout=100", "f=1/0;"}, {"apply_if.rollout=0%", "f=/0;"},
      {"apply_if.rollout=100.01", error + "bad rollout share: 100.01 (a percentage, 0 to 100)"},
      {"apply_if.hash_of.tool=" + digest + "\napply_if.version_of.tool=2.5", "f=1/0;"},  // last: its cache is read below
  };
  LPARAMS::server::set_machine_id_file(dir_.write("machine-id", "0123456789abcdef\n"));
  for (const auto& [condition, rules] : rows)
    EXPECT_EQ(load("global.tool=" + tool + "\ncan_skip.f=1\n[" + T + ".hash_to_version.tool]\nhash." +
                   digest.substr(19) + "=2.5\n[" + T + ".file=f]\n" + condition +
                   "\nupdate_version=1\ndownload_file=$(null)\nexec=x\n"),
              rules)
        << condition;
  EXPECT_EQ(hashes_.entries[tool], string_list_t{digest});  // the run's cache hashed it once for both
  EXPECT_EQ(logged("skip file section #1: false condition #1: apply_if.exec"), 1u);
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
      {"version=1\nexec=y\n" + f + "update_version=2\nexec=x\n", "f=2/0;"},  // the other format's rule is not read
      {"can_skip.f=2\n" + no, error + "all sections has false conditions for file: f"},
      {f + "update_version=1\nexec=x\nfilesize=1\n", error + "'filesize' value no sense when download_file=$(null)"},
      {"[" + T + ".file=a" + std::string(1, '\0') + "b]\n", error + "control character in file name: a\\x00b"},
      {"global.v=1\x01\n" + f + "update_version=$(v)\nexec=x\n", error + "unusable character in version: 1\\x01"},
      {"[" + T + ".file=g]\nh=#T:\x02\ndownload_hash=$(h)\nupdate_version=1\nexec=x\n",
       error + "unusable character in hash: #T:\\x02"},
      {"status_hash_of=a\x03\n" + f, error + "control character in file name: a\\x03"},
      {"[" + T + ".file=../x]\n", error + "file name leaves the update directory: ../x"},
      {"[" + T + ".file=/etc/x]\n", error + "file name leaves the update directory: /etc/x"},
      {"[" + T + ".file=./corvid_update_serials]\n", error + "file name is one of the module's own files: ./corvid_update_serials"},
      {"[" + T + ".map_to.t]\nk=d/corvid_update_status.xml.bak/x/..\n[" + T + ".file=f]\nupdate_version=1\nexec=x\n"
       "download_hash=#SHA256:00\ndownload_file=$(map_to.t.k)\n",
       error + "download file is one of the module's own files: d/corvid_update_status.xml.bak/x/.."},
      {f + "update_version=1\nexec=x\ndownload_patch=p\n", error + "'download_patch' value no sense when "
                                                                  "download_file=$(null)"},
      {"[" + T + ".file=g]\nupdate_version=1\nexec=x\ndownload_hash=$sha256:1\ndownload_patch=$sha256:1, 9, "
       "$sha256:2, p\n", error + "bad 'download_patch' for file 'g': patch offered for file 'g' without its hash "
                                  "and size"},
  };
  for (const auto& [text, rules] : rows) EXPECT_EQ(load(text), rules) << text;
  EXPECT_EQ(logged("skip file section #3: other section was chosen"), 1u);
  EXPECT_EQ(logged("apply file section #2") + logged("apply file section #1"), 2u);  // the two rows that load
  EXPECT_EQ(logged("current version"), 0u);  // a missing record is planning's to tell
  EXPECT_EQ(logged("skip file section #1: false condition #1: apply_if.version_of.agent = 9, checked value: 1.0.0"),
            4u);
}

TEST(Rollout, SharesAreStableGrowByAddingAndDrawAnewForANewVersion) {
  for (const auto& [text, share] : std::initializer_list<std::pair<const char*, int>>{
           {"0", 0}, {"100", 10000}, {"25%", 2500}, {"0.5", 50}, {"2.05", 205}, {"99.9", 9990}, {"007", 700},
           {"100.01", -1}, {"", -1}, {"%", -1}, {"5.", -1}, {".5", -1}, {"1.234", -1}, {"-1", -1}, {"1000", -1}, {"0100", -1},
           {" 5", -1}}) {
    unsigned parsed = 0;
    EXPECT_EQ(parse_rollout_share(text, parsed) ? static_cast<int>(parsed) : -1, share) << text;
  }
  // Of 1000 machines, those a share of a file at a version reaches.
  const auto reached = [](unsigned share, const char* file, const char* version) {
    std::set<int> machines;
    for (int m = 0; m < 1000; ++m)
      if (rollout_place(std::to_string(m * 7919) + "c0ffee", file, version) < share) machines.insert(m);
    return machines;
  };
  std::set<int> before;
  for (const auto& [share, low, high] : {std::tuple{0u, 0u, 0u}, {1000u, 70u, 130u}, {2500u, 210u, 290u},
                                         {5000u, 450u, 550u}, {10000u, 1000u, 1000u}}) {
    const std::set<int> now = reached(share, "tool.exe", "2.0");
    EXPECT_TRUE(now.size() >= low && now.size() <= high) << share << ": " << now.size();
    EXPECT_TRUE(std::includes(now.begin(), now.end(), before.begin(), before.end())) << share;
    before = now;
  }
  // Another version or file draws its quarter anew: about a quarter of the last quarter again.
  const std::set<int> quarter = reached(2500, "tool.exe", "2.0");
  for (const auto& [file, version] : {std::pair{"tool.exe", "2.1"}, {"other.exe", "2.0"}}) {
    std::vector<int> again;
    const std::set<int> next = reached(2500, file, version);
    std::set_intersection(quarter.begin(), quarter.end(), next.begin(), next.end(), std::back_inserter(again));
    EXPECT_TRUE(again.size() > 30 && again.size() < 100) << file << " " << version << ": " << again.size();
  }
}

}  // namespace
}  // namespace update::testing
