// One parsed update source: its transfer settings, client texts and rules.
#pragma once
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "records/patch.h"

class CIniFile;  // the ini engine keeps its own global name

namespace update {

using string_list_t = std::list<std::string>;

// Transfer settings. The constructor's values serve the fetch of update.ini
// itself; a loaded description writes the reader's defaults instead.
struct params_t {
  int32_t connect_timeout = 300;
  int32_t download_lowtime = 300;
  int32_t download_lowspeed = 10;
  int32_t download_keepalive_interval = 30;
  int32_t download_retry = 0;
  uint64_t download_rollback_size = 0;
  uint64_t download_fsync_size = 0;
  std::string tcp_nodelay;
};

// One file of a rule.
struct file_entry_t {
  std::string name;        // key of the file's status entry
  std::string local_path;  // final place of the file
  std::string uri;         // where it is fetched from
  std::string hash;        // expected hash, decorated
  uint64_t size = 0;       // 0 when the description gives none
  bool ready = false;
  // Offered with a hash and a size only: the result is checked by them.
  // Braced, so that a record made field by field may leave it out.
  std::vector<patch_t> patches{};
};

struct update_ini_t;

// One rule; the same record serves both description formats.
struct file_rule_t {
  bool is_main = false;
  std::string update_version;
  std::string file_name;
  std::string hash;
  std::string filesize;
  std::string exec_sys;
  std::string exec_sys_wait;
  std::string exec_user;
  std::string exec_user_wait;
  std::string display_name;
  std::string current_version;
  std::string download_path;
  std::list<file_entry_t> entries;
  update_ini_t* owner = nullptr;  // not owned; set by the readers on every rule with entries
  bool legacy_exec = false;
  string_list_t exec_list;
  string_list_t exec_before_download;
};

// One source. Lives in the run's list of sources and must not move while
// plans or the status refer to its rules.
struct update_ini_t : params_t {
  bool merged = false;
  std::string uri;
  // Set by the run driver when the description had to pass a signature
  // check: every file it downloads must then have a hash.
  bool signature_checked = false;
  std::string message;
  std::string silent;
  int32_t timeout = 0;
  std::list<file_rule_t> rules;
  std::string hash;
  string_list_t exec_before_update;
  string_list_t status_hash_of;
};

class inivars_t;
struct hash_cache_t;

// True for "1", "on", "yes" or "true", without regard to case.
bool parse_bool_text(const std::string& text);

// Base-10 signed conversion of the whole text, saturated to 32 bits; the
// fallback for an empty or partly converted text.
int32_t parse_int_or(const std::string& text, int32_t fallback);

// Base-10 unsigned 64-bit conversion of the whole text; false if characters
// remain or the top bit is set.
bool parse_size(uint64_t& out, const std::string& text);

// Reads the product section's settings into ini. Throws nothing.
void read_params(CIniFile& ini_file, const std::string& section_name, update_ini_t& ini);

// Opens dir + file_name, parses it and fills ini. Mode 0 is a run, mode 1 is
// start-up (indexed format, bare keys only, no report for a missing file).
// Parse failures are reported as the source's error and give false; so is,
// for a signature_checked description, a file to download without a hash,
// whatever the verification switch says.
bool load_update_ini(update_ini_t& ini, const inivars_t& predefined, hash_cache_t& hashes,
                     const std::string& dir, const char* file_name, int mode);

}  // namespace update
