#include "install/path_vars.h"

#include "facts/agent_facts.h"
#include "platform/agent_paths.h"
#include "support/file_helpers.h"

namespace update {

std::mutex path_vars_lock;
path_vars_t path_vars;

void build_path_vars() {
  const std::string& version = current_version_text();
  path_vars_t built = {
      {"$update_path", ""},
      {"$download_path", agentTmpDir()},
      {"$current_version", version},
      {"$update_uri", ""},
      {"$agent_tmp", agentTmpDir()},
      {"$agent_bin", agentBinDir()},
      {"$agent_lib", agentLibDir()},
      {"$agent_etc", agentEtcDir()},
      {"$system_etc", systemEtcDir()},
      {"$system_log", systemLogDir()},
      {"$system_var", systemVarDir()},
      {"$system_var_etc", systemVarEtcDir()},
      {"$system_tmp", systemTmpDir()},
      {"$agent_version", version},
      {"$current_product_specs", product_specs_text()},
  };
  for (auto& var : built) var.value = without_trailing_separators(var.value, 1);
  std::lock_guard<std::mutex> hold(path_vars_lock);
  path_vars.swap(built);
}

void substitute_variables(std::string& text, const path_vars_t& variables) {
  for (const auto& var : variables) {
    if (var.name.empty()) continue;
    for (size_t at = text.find(var.name); at != std::string::npos; at = text.find(var.name, at)) {
      text.replace(at, var.name.size(), var.value);
      at += var.value.size();
    }
  }
}

}  // namespace update
