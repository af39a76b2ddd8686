// The agent's directories and product values, configured by the host, and
// the two file-system helpers the module asks of the agent.
#include "platform/agent_paths.h"

#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/agent.h"

namespace agent {

namespace {

std::string strip_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::mutex paths_lock;
paths_t& configured() {  // guarded by paths_lock
  static paths_t& paths = *new paths_t(paths_under(default_root()));  // outlives static destructors
  return paths;
}

std::string read(std::string paths_t::*field) {
  std::lock_guard<std::mutex> hold(paths_lock);
  return configured().*field;
}

}  // namespace

// Where an unconfigured agent keeps its state: one directory per user, so
// that nothing needs root. There is no shared fallback: a directory in a
// place everyone may write could have been made by another user first.
std::string default_root() {
  const char* state = std::getenv("XDG_STATE_HOME");
  if (state && *state == '/') return strip_trailing_slashes(state) + "/corvid";
  const char* home = std::getenv("HOME");
  if (home && *home == '/') return strip_trailing_slashes(home) + "/.local/state/corvid";
  return "";
}

paths_t paths_under(const std::string& root_text) {
  const std::string root = strip_trailing_slashes(root_text);
  paths_t p;
  p.product_version = default_product_version;
  p.product_build = default_product_build;
  p.product_target = default_product_target;
  p.product_os = default_product_os;
  p.product_cpu = default_product_cpu;
  p.product_vendor = default_product_vendor;
  if (root.empty()) return p;
  p.agent_tmp = root + "/tmp";
  p.agent_bin = root + "/bin";
  p.agent_lib = root + "/lib";
  p.agent_etc = root + "/etc";
  p.system_etc = root + "/etc";
  p.system_log = root + "/log";
  p.system_var = root + "/var/";
  p.system_var_etc = root + "/var/etc";
  p.system_tmp = root + "/tmp";
  return p;
}

paths_t default_paths() { return paths_under(default_root()); }

void configure_paths(const paths_t& paths) {
  std::lock_guard<std::mutex> hold(paths_lock);
  configured() = paths;
}

paths_t current_paths() {
  std::lock_guard<std::mutex> hold(paths_lock);
  return configured();
}

}  // namespace agent

std::string agentTmpDir() { return agent::read(&agent::paths_t::agent_tmp); }
std::string agentBinDir() { return agent::read(&agent::paths_t::agent_bin); }
std::string agentLibDir() { return agent::read(&agent::paths_t::agent_lib); }
std::string agentEtcDir() { return agent::read(&agent::paths_t::agent_etc); }
std::string systemEtcDir() { return agent::read(&agent::paths_t::system_etc); }
std::string systemLogDir() { return agent::read(&agent::paths_t::system_log); }
std::string systemVarDir() { return agent::read(&agent::paths_t::system_var); }
std::string systemVarEtcDir() { return agent::read(&agent::paths_t::system_var_etc); }
std::string systemTmpDir() { return agent::read(&agent::paths_t::system_tmp); }
std::string productVersion() { return agent::read(&agent::paths_t::product_version); }
std::string productBuild() { return agent::read(&agent::paths_t::product_build); }
std::string productTarget() { return agent::read(&agent::paths_t::product_target); }
std::string productOs() { return agent::read(&agent::paths_t::product_os); }
std::string productCpu() { return agent::read(&agent::paths_t::product_cpu); }
std::string productVendor() { return agent::read(&agent::paths_t::product_vendor); }

int agent_fs_mkdir_if_not_exist_rwx_usr(const std::string& path) {
  if (path.empty()) return -1;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : -1;
  // Create each missing level; a level that appears meanwhile is no failure.
  for (size_t at = path.find('/', 1); ; at = path.find('/', at + 1)) {
    const std::string level = at == std::string::npos ? path : path.substr(0, at);
    if (!level.empty() && level.back() != '/' && ::mkdir(level.c_str(), S_IRWXU) != 0 && errno != EEXIST) return -1;
    if (at == std::string::npos) break;
  }
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 0 : -1;
}

int agent_fs_chmod_bak_rw_usr(const std::string& bak_path, const std::string& path) {
  (void)path;  // the companion alone has to be writable; the target is replaced by rename
  struct stat st;
  if (::lstat(bak_path.c_str(), &st) != 0) return errno == ENOENT ? 0 : -1;
  // Never through a link: the writer replaces whatever is not a plain file.
  if (!S_ISREG(st.st_mode)) return 0;
  if ((st.st_mode & (S_IRUSR | S_IWUSR)) == (S_IRUSR | S_IWUSR)) return 0;
  return ::chmod(bak_path.c_str(), (st.st_mode & 07777) | S_IRUSR | S_IWUSR) == 0 ? 0 : -1;
}
