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
//  - a second load of the same text gives the same rules;
//  - the status a check plans from a loaded one, saved, reads back with the
//    same entries, whatever the description's values hold.
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "agent/agent.h"
#include "description/inivars.h"
#include "facts/hash_cache.h"
#include "platform/local_params.h"
#include "planning/plan_rule.h"
#include "planning/reconcile.h"
#include "platform/process.h"
#include "records/update_ini.h"
#include "status/status.h"
#include "status/status_file.h"
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

// Every field the status file keeps of the entries and the hashes.
std::string entries_text(const update::status_t& status) {
  std::string text;
  for (const auto& f : status.files) {
    text += f.name + "|" + std::to_string(f.state) + "|" + f.current_version + "|" + f.update_version + "|" +
            f.download_hash + "|" + std::to_string(f.download_size) + "|" + std::to_string(f.total_size) + "|" +
            f.uri + "|" + std::to_string(f.type) + "|" + f.error + "|" + f.installed_time + "|" + f.uptodate_time +
            "\n";
  }
  for (const auto& [file, list] : status.hashes.entries)
    for (const auto& hash : list) text += file + "=" + hash + "\n";
  return text;
}

// What a check makes of the loaded sources, as the run driver does it, into
// a fresh status, which is then written and read as the next start would.
void check_status_reads_back(std::list<update::update_ini_t>& sources) {
  update::status_t& status = update::status;
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.reset();
  status.save_enabled = false;
  sources.front().merged = true;
  update::plans_t plans;
  update::reconcile_status(sources, status, plans, dir);
  for (update::file_rule_t* rule : plans) update::plan_rule(*rule, dir);
  status.verify_versions(dir);
  status.rehash();
  status.render_xml();
  update::status_t read_back;
  std::lock_guard<std::recursive_mutex> hold_read(read_back.lock);
  std::istringstream in(status.xml);
  update::read_status(read_back, in, "status.xml");
  check(read_back.messages.empty(), "the saved status reads back");
  check(entries_text(read_back) == entries_text(status), "the saved status reads back with the same entries");
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

// Planning may delete downloads; only inside the scratch directory.
extern "C" bool __real__ZN6update8platform11remove_fileEPKc(const char* path);
extern "C" bool __wrap__ZN6update8platform11remove_fileEPKc(const char* path) {
  const std::string text = path;
  if (text.compare(0, dir.size(), dir) != 0 || text.find("..") != std::string::npos) return false;
  return __real__ZN6update8platform11remove_fileEPKc(path);
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
        std::list<update::update_ini_t> sources(1);
        update::update_ini_t& ini = sources.front();
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
        if (round == 0 && mode == 0) check_status_reads_back(sources);
      }
    }
  }
  return 0;
}
