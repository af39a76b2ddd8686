#include "client/status_json.h"

#include <cstring>
#include <exception>
#include <mutex>
#include <sstream>

#include <nlohmann/json.hpp>

#include "platform/xml_document.h"

namespace client {

std::string status_json(const update::status_t& status) {
  using json = nlohmann::ordered_json;
  // The line update_msg says: the first message with a text, for an error.
  std::string message;
  if (status.result == update::status_undefined) message = "update status undefined";
  if (status.result == update::status_error)
    for (const auto& m : status.messages)
      if (message.empty()) message = m.text;
  json object{{"result", update::status_code_text(status.result)},
              {"message", message},
              {"command", status.cmd},
              {"id", status.cmdid},
              {"start_time", status.start_time},
              {"messages", json::array()},
              {"files", json::array()}};
  for (const auto& m : status.messages) object["messages"].push_back({{"uri", m.uri}, {"text", m.text}});
  for (const auto& f : status.files)
    object["files"].push_back({{"name", f.name},
                               {"state", update::file_state_text(f.state)},
                               {"current_version", f.current_version},
                               {"update_version", f.update_version},
                               {"download_size", f.download_size},
                               {"total_size", f.total_size},
                               {"error", f.error},
                               {"installed_time", f.installed_time},
                               {"uptodate_time", f.uptodate_time}});
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool status_from_xml(const std::string& xml, update::status_t& status) {
  std::istringstream in(xml);
  XMLDocument document("update-status");
  try {
    document.Read(in);
  } catch (const std::exception&) {
    return false;
  }
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.parse_xml(document);
  const char* result = document.FindAttribute("result");
  for (int32_t code = update::status_undefined; result && code <= update::status_uptodate; ++code)
    if (std::strcmp(result, update::status_code_text(code)) == 0)
      status.result = static_cast<update::status_code_t>(code);
  return true;
}

}  // namespace client
