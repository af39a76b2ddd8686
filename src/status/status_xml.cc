#include <charconv>
#include <string_view>

#include "facts/agent_facts.h"
#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/log.h"
#include "status/status.h"
#include "status/status_file.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/xml_text.h"

namespace update {

std::atomic<uint64_t> status_saves{0};

namespace {

const char xml_declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// How a value is written, so that it reads back byte for byte whoever chose
// it: attribute values escape "&", "<", ">" and the double quote, texts all
// but the quote. Whatever a reader would change comes as a reference: a
// carriage return everywhere (it reads as a line feed), tab and line feed in
// attribute values (they read as blanks). A byte XML cannot carry becomes
// U+FFFD.
enum class escape_t { attribute, text };

const char* replacement(unsigned char c, escape_t kind) {
  switch (c) {
    case '&': return "&amp;";
    case '<': return "&lt;";
    case '>': return "&gt;";
    case '"': return kind == escape_t::attribute ? "&quot;" : nullptr;
    case '\r': return "&#13;";
    case '\t': return kind == escape_t::text ? nullptr : "&#9;";
    case '\n': return kind == escape_t::text ? nullptr : "&#10;";
    default: return xml_forbidden_byte(c) ? "\xEF\xBF\xBD" : nullptr;
  }
}

void append_escaped(std::string& out, std::string_view text, escape_t kind) {
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char* entity = replacement(static_cast<unsigned char>(text[i]), kind);
    if (!entity) continue;
    out.append(text.data() + run, i - run);
    out += entity;
    run = i + 1;
  }
  out.append(text.data() + run, text.size() - run);
}

void append_attr_escaped(std::string& out, std::string_view text) { append_escaped(out, text, escape_t::attribute); }
void append_text_escaped(std::string& out, std::string_view text) { append_escaped(out, text, escape_t::text); }

// Decimal of an unsigned 64-bit value, as "%llu" writes it.
void append_decimal(std::string& out, uint64_t value) {
  char digits[24];
  auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, end);
}

// The attributes on further lines of a file element: line feed, tab, name.
void open_file_attr(std::string& out, const char* name) {
  out += "\n\t";
  out += name;
  out += "=\"";
}

void append_file_attr(std::string& out, const char* name, const std::string& value) {
  if (value.empty()) return;
  open_file_attr(out, name);
  append_attr_escaped(out, value);
  out += '"';
}

void append_size_file_attr(std::string& out, const char* name, uint64_t value) {
  if (value == 0) return;
  open_file_attr(out, name);
  append_decimal(out, value);
  out += '"';
}

void render_file(std::string& out, const file_status_t& f) {
  out += "<file name=\"";
  append_attr_escaped(out, f.name);
  out += "\" state=\"";
  out += file_state_text(f.state);
  out += '"';
  append_file_attr(out, "current_version", f.current_version);
  append_file_attr(out, "update_version", f.update_version);
  append_file_attr(out, "download_hash", f.download_hash);
  append_size_file_attr(out, "download_size", f.download_size);
  append_size_file_attr(out, "total_size", f.total_size);
  append_file_attr(out, "uri", f.uri);
  append_file_attr(out, "base_hash", f.base_hash);
  append_size_file_attr(out, "base_size", f.base_size);
  if (f.type == 1) {
    open_file_attr(out, "type");
    out += agent_type_text;
    out += '"';
  }
  append_file_attr(out, "installed_time", f.installed_time);
  append_file_attr(out, "uptodate_time", f.uptodate_time);
  if (f.error.empty()) {
    out += "\n/>\n";
  } else {
    out += "\n>";
    append_text_escaped(out, f.error);
    out += "</file>\n";
  }
}

}  // namespace

std::string status_file_path() {
  std::string path;
  update_dir_path(path);
  path += platform::path_separator_text;
  path += status_file_name;
  return path;
}

void status_t::render_xml() {
  // Built aside and swapped in: running out of memory midway leaves the old
  // text, never half of a new one.
  std::string out;
  out.reserve(xml.capacity() ? xml.capacity() : 512);
  out += "<update-status result=\"";
  out += status_code_text(result);
  out += "\" download_size=\"";
  append_decimal(out, sum_download_size());
  out += "\" total_size=\"";
  append_decimal(out, sum_total_size());
  out += "\" cmd=\"";
  append_attr_escaped(out, cmd);
  out += "\" cmdid=\"";
  append_attr_escaped(out, cmdid);
  out += "\" start_time=\"";
  append_attr_escaped(out, start_time);
  out += "\">\n";
  for (const auto& m : messages) {
    if (m.text.empty()) continue;
    out += "<message uri=\"";
    append_attr_escaped(out, m.uri);
    out += "\" state=\"";
    out += status_code_text(m.state);
    out += "\">";
    append_text_escaped(out, m.text);
    out += "</message>\n";
  }
  for (const auto& f : files) render_file(out, f);
  for (const auto& [file, list] : hashes.entries) {
    for (const auto& hash : list) {
      out += "<hash file=\"";
      append_attr_escaped(out, file);
      out += "\" hash=\"";
      append_attr_escaped(out, hash);
      out += "\" />\n";
    }
  }
  out += "</update-status>\n";
  xml.swap(out);
}

void status_t::save(bool lasting) {
  status_saves.fetch_add(1, std::memory_order_relaxed);
  render_xml();
  const std::string path = status_file_path();
  agent_fs_chmod_bak_rw_usr(backup_name(path), path);
  // Only a companion that cannot be created is told; a failed write or
  // rename leaves the old file whole and the next save tries again.
  const atomic_write_t written = write_file_atomically(path, {xml_declaration, xml});
  if (written == atomic_write_t::not_opened) {
    TLogMessage log(log_id_failure);
    log.append_attr(log_attr_text, format_message("Failed to save update status to file: %s", path.c_str()));
  }
  if (lasting && written == atomic_write_t::done) platform::sync_directory_of(path.c_str());
}

}  // namespace update
