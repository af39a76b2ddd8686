// What corvid-update shows on standard error while the module works: a bar
// drawn from the status sums on a terminal, the log's course and failure
// records as plain lines otherwise.
#pragma once
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace host {

class progress_t {
 public:
  explicit progress_t(bool terminal);
  ~progress_t();  // stops watching the log and clears the bar
  progress_t(const progress_t&) = delete;
  progress_t& operator=(const progress_t&) = delete;

  // Redraws the bar from the status; nothing when not on a terminal.
  // Takes the status lock.
  void tick();
  // While held, the bar is cleared and not drawn: the terminal is talking
  // to the user. Safe from any thread.
  void hold(bool on);

 private:
  void on_record(uint16_t id, const std::vector<std::string>& attrs);
  void clear_bar();  // REQUIRES: lock_ held

  bool terminal_;
  int observer_ = 0;
  std::mutex lock_;           // serialises writes to standard error
  bool bar_shown_ = false;    // guarded by lock_
  bool held_ = false;         // guarded by lock_
};

}  // namespace host
