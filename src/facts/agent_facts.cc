#include "facts/agent_facts.h"

#include "platform/agent_paths.h"
#include "platform/local_params.h"
#include "support/file_helpers.h"

namespace update {

void update_dir_path(std::string& path) {
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
