#include "platform/log.h"
#include "status/status.h"

namespace update {

void report(int level, const std::string& text) {
  static const char* const stage_words[] = {"uptodate", "outofdate", "download", "install"};
  if (level == 0) {
    {
      TLogMessage log(log_id_failure);
      log.append_attr(log_attr_text, text);
    }
    status.record_error(0, text);
    notify_error(text);
    return;
  }
  if (level == 1) {
    TLogMessage log(log_id_notice);
    log.append_attr(log_attr_text, text);
    return;
  }
  TLogMessage log(log_id_course);
  if (level >= 2 && level <= 5) log.append_attr(log_attr_text, stage_words[level - 2]);
  log.append_attr(log_attr_text, text);
}

// A null text is told as an empty one rather than taking the process down.
void report_error(const char* text) { report(0, text ? text : ""); }

void report_progress(const char* text) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  TLogMessage log(log_id_course);
  log.append_attr(log_attr_text, status.current_file ? file_state_text(status.current_file->state)
                                                     : status_code_text(status.result));
  log.append_attr(log_attr_text, text ? text : "");
}

}  // namespace update
