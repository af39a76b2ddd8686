// Which names a description may give its files: the loader refuses the rest.
#include "description/loader.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "facts/agent_facts.h"
#include "facts/trust.h"
#include "status/status_file.h"
#include "support/file_helpers.h"

namespace update {

namespace {

// The parts of a path between separators ("/" and "\\"), without empty
// and "." ones; ".." parts stay.
std::vector<std::string> path_parts(const std::string& path) {
  std::vector<std::string> parts;
  for (size_t at = 0; at <= path.size();) {
    const size_t end = std::min(path.find_first_of("/\\", at), path.size());
    const std::string part = path.substr(at, end - at);
    if (!part.empty() && part != ".") parts.push_back(part);
    at = end + 1;
  }
  return parts;
}

// The last part of a path as the system resolves its ".." parts.
std::string resolved_last_part(const std::string& path) {
  std::vector<std::string> kept;
  for (auto& part : path_parts(path)) {
    if (part != "..") {
      kept.push_back(std::move(part));
    } else if (!kept.empty()) {
      kept.pop_back();
    }
  }
  return kept.empty() ? "" : kept.back();
}

bool is_own_file(const std::string& name) {
  // ".unchecked": where a signed description waits for its check; the lock
  // file is what earlier versions locked, and may still be there.
  static const std::string own[] = {
      status_file_name, backup_name(status_file_name), local_ini_name, std::string(local_ini_name) + ".unchecked",
      serials_file_name, backup_name(serials_file_name), "corvid_update.lock", log_file_name};
  return std::find(std::begin(own), std::end(own), name) != std::end(own);
}

}  // namespace

std::string refused_file_name(const std::string& name) {
  const std::vector<std::string> parts = path_parts(name);
  if (name.find_first_of("/\\") == 0 || std::find(parts.begin(), parts.end(), "..") != parts.end())
    return "file name leaves the update directory: " + name;
  if (!parts.empty() && is_own_file(parts.back())) return "file name is one of the module's own files: " + name;
  return "";
}

std::string refused_local_path(const std::string& path) {
  return is_own_file(resolved_last_part(path)) ? "download file is one of the module's own files: " + path : "";
}

}  // namespace update
