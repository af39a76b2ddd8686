#include "frame/module.h"
#include "frame/update.h"
#include "status/status.h"

namespace update {

void get_status(std::string& state, std::string& message, bool force) {
  // The module lock is released before the status lock is taken.
  if (current_module_state() == module_stopped) return;
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  if (!force && status_reported) return;
  status_reported = true;
  switch (status.result) {
    case status_prepare:
    case status_download:
    case status_install:
    case status_downloaded: state = "update_state=download"; break;
    case status_outofdate: state = "update_state=outofdate"; break;
    case status_installed: state = "update_state=install"; break;
    case status_uptodate: state = "update_state=uptodate"; break;
    case status_error:
      state = "update_state=error";
      message = "update_msg=";
      for (const auto& m : status.messages) {
        if (!m.text.empty()) {
          message += m.text;
          break;
        }
      }
      break;
    default:
      state = "update_state=error";
      message = "update_msg=update status undefined";
      break;
  }
}

void get_status_xml(std::string& text) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  if (status.xml.empty()) status.render_xml();
  text += status.xml;
}

}  // namespace update
