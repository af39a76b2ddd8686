// Fuzz target for the whole description loader: text in, load_update_ini out,
// in both formats, built from the module's own sources. Nothing is started:
// the process runner refuses every command, so apply_if.exec conditions are
// false. Hashing is kept inside the target's scratch directory, since a
// description may name any path, and a device such as /dev/zero never ends.
// Besides crashes and sanitizer findings it checks properties that a wrong
// reader would break:
//  - a refused description has reported why (start-up may refuse silently);
//  - the rules of a loaded one are well formed, one per file name, and
//    their names are ones the status file can carry;
//  - a second load of the same text gives the same rules.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "agent/agent.h"
#include "description/inivars.h"
#include "facts/hash_cache.h"
#include "platform/local_params.h"
#include "platform/process.h"
#include "records/update_ini.h"
#include "status/status.h"
#include "support/xml_text.h"

namespace {

std::string dir;  // the scratch directory, with a trailing "/"
std::atomic<int> failures{0};

using fuzz::check;

bool write_text(const std::string& path, const std::string& text) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  return std::fclose(f) == 0 && ok;
}

// The files a description may refer to: a tool with a version record and a
// hash-to-version table entry waiting in the seeds.
void make_scratch_dir() {
  const char* base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string pattern = std::string(base) + "/corvid-loader-fuzz-XXXXXX";
  check(mkdtemp(pattern.data()) != nullptr, "scratch directory made");
  dir = pattern + "/";
  std::atexit([] {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  });
  check(write_text(dir + "tool.exe", "tool 2.1") && write_text(dir + "tool.exe.version", "2.1\n"), "seed files");
}

update::inivars_t predefined() {
  update::inivars_t vars;
  vars.add("agent_version", "1.0.0");
  vars.add("agent_specs", "corvid.linux.x86_64.corvid");
  vars.add("update_path", dir.substr(0, dir.size() - 1));
  vars.add("update_ini_format", "1.0");
  vars.add("agent_bin", dir + "bin");
  return vars;
}

std::string rules_text(const update::update_ini_t& ini) {
  std::string text;
  for (const auto& r : ini.rules) {
    text += r.file_name + "|" + r.update_version + "|" + r.display_name + "|";
    for (const auto& e : r.entries) text += e.local_path + "|" + e.uri + "|" + e.hash + "|";
    for (const auto& c : r.exec_list) text += c + "|";
    text += "\n";
  }
  return text;
}

void check_rules(const update::update_ini_t& ini) {
  std::set<std::string> names;
  for (const auto& rule : ini.rules) {
    check(!update::has_xml_forbidden_byte(rule.file_name), "a file's name is one the status file can carry");
    if (rule.legacy_exec) {
      check(rule.owner == &ini && !rule.update_version.empty(), "an indexed rule has an owner and a version");
      continue;
    }
    check(names.insert(rule.file_name).second, "one rule per file");
    check(!rule.file_name.empty() && rule.entries.size() <= 1, "a section rule names one file at most");
    if (!rule.owner) {
      check(rule.update_version.empty() && rule.exec_list.empty(), "a skipped file has nothing to do");
      continue;
    }
    check(rule.owner == &ini && !rule.update_version.empty() && !rule.exec_list.empty(), "a rule is complete");
    for (const auto& entry : rule.entries) check(entry.name == rule.file_name, "the entry is the rule's file");
    // What an install would start must at least be split without a crash.
    std::vector<std::string> words;
    for (const auto& command : rule.exec_list) update::platform::split_command_line(command, words);
  }
}

}  // namespace

// Hashing only inside the scratch directory; elsewhere the file is absent.
extern "C" bool __real__ZN15HashFileChecker8CalcHashERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_RS5_(
    const std::string& path, const std::string& type, std::string& result);
extern "C" bool __wrap__ZN15HashFileChecker8CalcHashERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_RS5_(
    const std::string& path, const std::string& type, std::string& result) {
  if (path.compare(0, dir.size(), dir) != 0 || path.find("..") != std::string::npos) return false;
  return __real__ZN15HashFileChecker8CalcHashERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES7_RS5_(
      path, type, result);
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  make_scratch_dir();
  agent::configure_paths(agent::paths_under(dir + "agent"));
  agent::add_log_observer([](uint16_t id, const std::vector<std::string>&) {
    if (id == 365) ++failures;
  });
  update::platform::refuse_process_start() = true;
  update::status.save_enabled = false;
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check(write_text(dir + "corvid_update.ini", text), "description written");
  const update::inivars_t vars = predefined();
  for (int mode = 0; mode <= 1; ++mode) {
    for (bool verify : {true, false}) {
      LPARAMS::server::set_verify_downloads(verify);
      std::string first;
      for (int round = 0; round < 2; ++round) {
        failures = 0;
        update::update_ini_t ini;
        ini.uri = "http://source/path?q=1";
        update::hash_cache_t hashes;
        const bool ok = update::load_update_ini(ini, vars, hashes, dir, "corvid_update.ini", mode);
        if (!ok) {
          check(failures > 0 || mode == 1, "a refused description was reported");
          break;
        }
        check_rules(ini);
        if (round == 0)
          first = rules_text(ini);
        else
          check(rules_text(ini) == first, "a second load gives the same rules");
      }
    }
  }
  return 0;
}
