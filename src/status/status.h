// The update status: the outcome of the last command, one entry per file,
// the errors of the run and the hashes to keep. One module-wide record.
#pragma once
#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

#include "facts/hash_cache.h"
#include "records/command.h"

class XMLDeclaration;  // platform/xml_document.h

namespace update {

struct file_rule_t;

// Overall status.
enum status_code_t : int32_t {
  status_undefined = 0,
  status_prepare = 1,
  status_download = 2,
  status_install = 3,
  status_error = 4,
  status_outofdate = 5,
  status_downloaded = 6,
  status_installed = 7,
  status_uptodate = 8,
};

// State of one file.
enum file_state_t : int32_t {
  file_undecided = 0,
  file_uptodate = 1,
  file_outofdate = 2,
  file_download = 3,
  file_downloaded = 4,
  file_install = 5,
  file_installed = 6,
};

// Message state as read back from the status file.
enum stage_t : int32_t {
  stage_none = 0,
  stage_prepare = 1,
  stage_download = 2,
  stage_install = 3,
};

const char* status_code_text(int32_t code);  // "undefined" for 0 and unknown values
const char* file_state_text(int32_t state);  // "" for 0 and unknown values

struct file_status_t {
  std::string name;
  int32_t type = 0;  // 1: a file of the agent itself
  file_state_t state = file_undecided;
  std::string current_version;
  std::string update_version;
  std::string download_hash;
  uint64_t download_offset = 0;  // not stored
  uint64_t download_size = 0;
  uint64_t total_size = 0;
  std::string uri;
  // The last whole download, which stays at the entry's place for a patch
  // once planning has forgotten it: its hash and size, so that the patch's
  // base needs no reading.
  std::string base_hash;
  uint64_t base_size = 0;
  std::string error;
  std::string installed_time;
  std::string uptodate_time;
  bool available = false;         // not stored
  bool skipped = false;           // not stored
  bool skip_downloading = false;  // not stored
};

struct status_message_t {
  std::string uri;
  std::string text;
  int32_t state = 0;
};

struct status_t {
  status_t() = default;
  status_t(const status_t&) = delete;
  status_t& operator=(const status_t&) = delete;

  // All fields below are guarded by lock.
  status_code_t result = status_undefined;
  std::string cmd;
  std::string cmdid;
  std::string start_time;
  std::string checking_file;
  std::list<file_status_t> files;         // references stay valid while appending
  std::list<status_message_t> messages;
  hash_cache_t hashes;
  file_status_t* current_file = nullptr;
  status_message_t* current_message = nullptr;
  const file_rule_t* current_rule = nullptr;
  std::recursive_mutex lock;
  std::string xml;  // cached rendering; empty means not rendered
  bool client_visible = false;
  bool save_enabled = true;
  uint64_t revision = 0;

  // REQUIRES: lock held. First entry of that name, appended if none.
  file_status_t& file_entry(const std::string& name);
  // Takes the lock. Makes the message of uri current, appending one if none.
  void select_message(const std::string& uri);
  // Take the lock. Open and close a run.
  void begin_run(Command command, const std::string& cmdid);
  void end_run(Command command);
  // Take the lock. Move the files of a rule into and out of installation.
  bool begin_install(const file_rule_t& rule);
  void end_install(const file_rule_t& rule);
  // Takes the lock. Level 0 only: the first text stands in each place.
  void record_error(int level, const std::string& text);
  // REQUIRES: lock held. A new first message with text; result 4; no save.
  void set_failure(const std::string& text);
  // REQUIRES: lock held.
  status_code_t derive_result() const;
  uint64_t sum_download_size() const;
  uint64_t sum_total_size() const;
  // REQUIRES: lock held. Rebuild xml; render and replace the status file.
  // Every value the text holds reads back byte for byte, but for a byte XML
  // cannot carry at all (a C0 control other than tab and line ends), which
  // is written as U+FFFD.
  // Each save waits for the disk once: the new file is whole before it
  // replaces the old one, so a crash or a power loss leaves one of the two.
  // Its name lasts through a power loss with the file system's next commit,
  // or at once when lasting is set (end_run sets it).
  void render_xml();
  void save(bool lasting = false);
  // REQUIRES: lock held. How every change reaches the disk: when save_enabled,
  // revision up by one and save.
  void save_change();
  // REQUIRES: lock held, the record as constructed. Reads the status file at
  // start-up: false if it cannot be opened; true otherwise, a corrupted file
  // included, which sets the failure "Update status file corrupted".
  bool load();
  // Fills the record from a read document; fields it cannot use stay as
  // they are. REQUIRES: lock held.
  void parse_xml(const XMLDeclaration& root);
  // REQUIRES: lock held. End-of-run passes.
  bool verify_versions(const std::string& update_dir);
  void rehash();
  void log_files();

  // Puts the record back to its load-time values. Tests only.
  void reset();
};

// The module's one status record, and whether get_status has told it.
extern status_t status;
extern bool status_reported;  // guarded by status.lock
// Saves since the process started. For benchmarks.
extern std::atomic<uint64_t> status_saves;

// Tells the log and, for level 0, the status. Levels: 0 error (id 365),
// 1 notice (366), 2..5 course (367) with "uptodate", "outofdate",
// "download" or "install" first.
void report(int level, const std::string& text);
void report_error(const char* text);     // same as report(0, text)
inline void report_error(const std::string& text) { report(0, text); }
void report_progress(const char* text);  // id 367: state text, text

// Shows name as the file a long hash reads now ("" when none); takes the lock.
void set_checking_file(const std::string& name);

// Tells the client of an error (install/notify.cc); nothing while
// notify_errors is off.
void notify_error(const std::string& text);

}  // namespace update
