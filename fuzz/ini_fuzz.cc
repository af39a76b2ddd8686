// Fuzz target for the ini engine and the indexed reader on top of it.
// Besides crashes and sanitizer findings it checks properties that a wrong
// parser or reader would break:
//  - what the engine read, written back as ini text, reads back the same;
//  - the lookups agree with the store, and the take lookups empty it;
//  - a rule the indexed reader accepts has well-formed entries, and a reader
//    that refuses has reported why.
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>
#include <string>

#include "description/indexed_rules.h"
#include "fuzz/fuzz_support.h"
#include "records/update_ini.h"
#include "support/ini_file.h"

namespace {

const std::string section = "corvid";

using fuzz::check;

std::unique_ptr<CIniFile> parse(const std::string& text) {
  std::istringstream in(text);
  try {
    return std::make_unique<CIniFile>(in);
  } catch (const CIniFileFormatError&) {
    return nullptr;
  }
}

bool has_header(CIniFile& ini, const CIniFile::group_t& group) {
  auto found = ini.groups_by_name.find(group.name);
  return found != ini.groups_by_name.end() && found->second == &group;
}

std::string write_back(CIniFile& ini) {
  std::string text;
  for (auto& g : ini.groups) {
    // Only the first group can lack a header; any later one had one.
    if (&g != &ini.groups.front() || has_header(ini, g)) text += "[" + g.name + "]\n";
    for (const auto& [key, values] : g.params)
      for (const auto& v : values) text += key + "=" + v + "\n";
  }
  return text;
}

void check_round_trip(CIniFile& ini) {
  std::unique_ptr<CIniFile> again = parse(write_back(ini));
  check(again != nullptr, "written-back text parses");
  check(again->groups.size() == ini.groups.size(), "same number of groups");
  for (auto a = ini.groups.begin(), b = again->groups.begin(); a != ini.groups.end(); ++a, ++b) {
    check(a->name == b->name, "same group names");
    check(a->params == b->params, "same parameters");
    check(has_header(ini, *a) == has_header(*again, *b), "same groups found by name");
  }
  check(again->groups_by_name.size() == ini.groups_by_name.size(), "same names mapped");
}

void check_lookups(CIniFile& ini) {
  for (auto& g : ini.groups) {
    CIniFile::group_list_t named;
    ini.groups_named(g.name, named);
    check(!named.empty(), "groups_named finds every group");
    if (g.params.empty()) continue;
    const std::string key = g.params.begin()->first;
    const std::list<std::string> values = g.params.begin()->second;
    check(g.value_of(key, nullptr) == values.back(), "value_of gives the last value");
    std::list<std::pair<std::string, std::string>> prefixed;
    g.params_with_prefix(key, prefixed);
    check(prefixed.size() >= values.size() && prefixed.front().first == key, "params_with_prefix starts at the key");
  }
  // Taking empties the store: every group ends with no parameters.
  for (auto& g : ini.groups) {
    while (!g.params.empty()) {
      const std::string key = g.params.begin()->first;
      const size_t count = g.params.begin()->second.size();
      if (count == 1) {
        g.take_value(key, nullptr);
      } else {
        std::list<std::string> taken;
        g.take_values(key, taken);
        check(taken.size() == count, "take_values gives every value");
      }
      check(g.params.count(key) == 0, "a taken key is gone");
      check(g.value_of(key, "absent") == "absent", "a taken key reads as absent");
    }
  }
}

void check_rules(const update::update_ini_t& ini) {
  for (const auto& rule : ini.rules) {
    check(!rule.update_version.empty(), "a rule has a version");
    check(rule.owner == &ini && rule.legacy_exec, "a rule belongs to its record");
    check(!rule.download_path.empty() && rule.download_path.back() == '/', "a download path ends in a separator");
    std::set<std::string> names;
    for (const auto& entry : rule.entries) {
      // An item ending in a separator names no file, and the format lets it
      // through with an empty name; what follows must cope with that.
      check(entry.name.find('/') == std::string::npos, "an entry has a bare name");
      check(entry.local_path == rule.download_path + entry.name, "an entry lands in the download path");
      check((entry.size >> 63) == 0, "a size fits the size rule");
      check(names.insert(entry.name).second, "entry names are unique");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::unique_ptr<CIniFile> ini = parse(text);
  if (!ini) return 0;
  check_round_trip(*ini);

  for (int mode = 0; mode <= 1; ++mode) {
    for (bool verify : {true, false}) {
      fuzz::verify_downloads = verify;
      fuzz::reports = 0;
      update::update_ini_t record;
      record.uri = "http://source/path?q=1";
      bool ok = false;
      try {
        ok = update::read_indexed_rules(*ini, section, record, "/var/update/", mode);
      } catch (const CIniFileVarNameNotFound& e) {
        check(e.group == section, "a missing key names the product section");
        continue;
      } catch (const std::string& text) {
        check(text.rfind("bad rollout share: ", 0) == 0 || text.find("machine's identity") != std::string::npos,
              "only a rollout throws a text");
        continue;
      }
      if (ok) check_rules(record);
      if (!ok && mode == 0) check(fuzz::reports > 0, "a refused description was reported");
      if (!ok && mode == 1) check(fuzz::reports > 0 || record.rules.empty(), "start-up refuses only without a rule");
      update::read_params(*ini, section, record);  // throws nothing
    }
  }
  check_lookups(*ini);
  return 0;
}
