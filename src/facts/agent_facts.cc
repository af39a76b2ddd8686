#include "facts/agent_facts.h"

#include <mutex>

#include "platform/agent_paths.h"
#include "platform/exposure.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "support/file_helpers.h"

namespace update {

namespace {

std::mutex pinned_lock;
std::string& pinned_dir() {  // guarded by pinned_lock
  static std::string& dir = *new std::string;  // outlives static destructors
  return dir;
}

}  // namespace

std::string directory_exposure_text(const std::string& path) {
  return platform::exposure_text(platform::directory_exposure(path.c_str()));
}

std::string file_exposure_text(const std::string& path) {
  return platform::exposure_text(platform::file_exposure(path.c_str()));
}

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
