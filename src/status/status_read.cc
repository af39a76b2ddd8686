// The status file's reader, used once at start-up: strict about syntax, so
// that a torn or foreign file costs all of it, and forgiving about fields, so
// that a value it cannot use costs that field alone.
#include <cstdlib>
#include <cstring>

#include "platform/log.h"
#include "platform/xml_document.h"
#include "status/status.h"
#include "status/status_file.h"
#include "support/file_helpers.h"
#include "support/message_format.h"

namespace update {

namespace {

// An absent attribute leaves the field as it is.
void read_text(const XMLDeclaration& element, const char* name, std::string& field) {
  if (const char* value = element.FindAttribute(name)) field = value;
}

// The C library's unsigned conversion, leading white space and sign
// included. Anything left over, or a value that is negative as a signed
// 64-bit number ("-1", 2^63 and beyond, an overflow), gives 0.
uint64_t read_size(const XMLDeclaration& element, const char* name) {
  const char* value = element.FindAttribute(name);
  if (!value) return 0;
  char* end = nullptr;
  const unsigned long long number = std::strtoull(value, &end, 10);
  if (*end != '\0' || static_cast<int64_t>(number) < 0) return 0;
  return number;
}

// Exact and case-sensitive; anything else is the undecided state.
file_state_t file_state_of(const char* text) {
  for (int32_t state = file_uptodate; state <= file_installed; ++state) {
    if (std::strcmp(text, file_state_text(state)) == 0) return static_cast<file_state_t>(state);
  }
  return file_undecided;
}

// Only the three stages come back; "error", "undefined" and the rest read
// as 0, and so does a message without a state.
int32_t stage_of(const char* text) {
  for (int32_t stage = stage_prepare; stage <= stage_install; ++stage) {
    if (std::strcmp(text, status_code_text(stage)) == 0) return stage;
  }
  return stage_none;
}

status_message_t read_message(const XMLDeclaration& element) {
  status_message_t message;
  read_text(element, "uri", message.uri);
  if (const char* state = element.FindAttribute("state")) message.state = stage_of(state);
  message.text = element.GetText();
  return message;
}

file_status_t read_file_entry(const XMLDeclaration& element) {
  file_status_t file;
  read_text(element, "name", file.name);
  if (const char* state = element.FindAttribute("state")) file.state = file_state_of(state);
  read_text(element, "current_version", file.current_version);
  read_text(element, "update_version", file.update_version);
  read_text(element, "download_hash", file.download_hash);
  file.download_size = read_size(element, "download_size");
  file.total_size = read_size(element, "total_size");
  read_text(element, "uri", file.uri);
  read_text(element, "base_hash", file.base_hash);
  file.base_size = read_size(element, "base_size");
  const char* type = element.FindAttribute("type");
  file.type = type && std::strcmp(type, agent_type_text) == 0 ? 1 : 0;
  read_text(element, "installed_time", file.installed_time);
  read_text(element, "uptodate_time", file.uptodate_time);
  file.error = element.GetText();
  return file;
}

}  // namespace

void status_t::parse_xml(const XMLDeclaration& root) {
  read_text(root, "cmd", cmd);
  read_text(root, "cmdid", cmdid);
  read_text(root, "start_time", start_time);
  for (size_t i = 0; i < root.GetElementsCount(); ++i) {
    const XMLDeclaration element = root.GetElement(i);
    if (element.NameEqual("message")) {
      messages.push_back(read_message(element));
    } else if (element.NameEqual("file")) {
      // A second entry of one name is kept: lookups find the first, and both
      // are written back.
      files.push_back(read_file_entry(element));
    } else if (element.NameEqual("hash")) {
      std::string file, hash;
      read_text(element, "file", file);
      read_text(element, "hash", hash);
      hashes.store(file, hash);  // drops an undecorated hash quietly
    }
  }
}

void read_status(status_t& status, std::istream& in, const std::string& path) {
  try {
    XMLDocument document("update-status");
    document.Read(in);
    status.parse_xml(document);
  } catch (const std::exception& e) {
    // What was read before the fault stays; the file itself stays until the
    // next save replaces it.
    status.set_failure("Update status file corrupted");
    TLogMessage log(log_id_notice);
    log.append_attr(log_attr_text, format_message("%s, xml syntax error: %s", path.c_str(), e.what()));
  }
}

bool status_t::load() {
  const std::string path = status_file_path();
  std::utf8_ifstream in(path);
  if (!in.is_open()) return false;
  read_status(*this, in, path);
  return true;
}

}  // namespace update
