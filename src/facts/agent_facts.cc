#include "facts/agent_facts.h"

#include <mutex>

#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "platform/process.h"
#include "support/file_helpers.h"
#include "support/message_format.h"

namespace update {

namespace {

std::mutex pinned_lock;
std::string& pinned_dir() {  // guarded by pinned_lock
  static std::string& dir = *new std::string;  // outlives static destructors
  return dir;
}

std::string exposure_text(const platform::exposure_report_t& report) {
  const char* path = report.path.c_str();
  switch (report.kind) {
    case platform::exposure_t::none: return "";
    case platform::exposure_t::foreign_owner:
      return format_message("%s belongs to user %u, not to root or to this process's user", path, report.owner);
    case platform::exposure_t::others_write:
      return format_message("%s may be written by others than its owner (mode %04o)", path, report.mode);
    case platform::exposure_t::unexamined:
      break;
  }
  return format_message("%s cannot be examined: %s", path, platform::system_error_text(report.error).c_str());
}

}  // namespace

std::string directory_exposure_text(const std::string& path) {
  return exposure_text(platform::directory_exposure(path.c_str()));
}

std::string file_exposure_text(const std::string& path) { return exposure_text(platform::file_exposure(path.c_str())); }

void update_dir_path(std::string& path) {
  {
    std::lock_guard<std::mutex> hold(pinned_lock);
    path = pinned_dir();
  }
  if (path.empty()) configured_update_dir(path);
}

void pin_update_dir(const std::string& dir) {
  std::lock_guard<std::mutex> hold(pinned_lock);
  pinned_dir() = dir;
}

void configured_update_dir(std::string& path) {
  std::string configured = LPARAMS::server::update_dir();
  if (configured.empty()) {
    path = systemVarDir() + "update";
    return;
  }
  path = without_trailing_separators(configured);
}

const std::string& current_version_text() {
  static const std::string text = productVersion() + "." + productBuild();
  return text;
}

const std::string& product_specs_text() {
  static const std::string text =
      productTarget() + "." + productOs() + "." + productCpu() + "." + productVendor();
  return text;
}

}  // namespace update
