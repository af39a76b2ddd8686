// Placeholder until the agent services land.
#include "agent/agent.h"
#include "platform/agent_paths.h"
#include "platform/event_manager.h"
#include "platform/local_params.h"
#include "platform/log.h"

TLogMessage::~TLogMessage() {}
int EM_AsyncCall(em_proc_t, void*) { return -1; }
int EM_SetTimer(int, int, em_proc_t, void*) { return 0; }
int EM_DelTimer(em_proc_t) { return 0; }
std::string agentTmpDir() { return {}; }
std::string agentBinDir() { return {}; }
std::string agentLibDir() { return {}; }
std::string agentEtcDir() { return {}; }
std::string systemEtcDir() { return {}; }
std::string systemLogDir() { return {}; }
std::string systemVarDir() { return {}; }
std::string systemVarEtcDir() { return {}; }
std::string systemTmpDir() { return {}; }
std::string productVersion() { return {}; }
std::string productBuild() { return {}; }
std::string productTarget() { return "corvid"; }
std::string productOs() { return {}; }
std::string productCpu() { return {}; }
std::string productVendor() { return {}; }
int agent_fs_mkdir_if_not_exist_rwx_usr(const std::string&) { return 0; }
int agent_fs_chmod_bak_rw_usr(const std::string&, const std::string&) { return 0; }
namespace LPARAMS {
std::string server::update_dir() { return {}; }
void server::set_update_dir(const std::string&) {}
bool server::verify_downloads() { return true; }
void server::set_verify_downloads(bool) {}
std::string server::verify_downloads_name() { return "verify_downloads"; }
}  // namespace LPARAMS
namespace agent {
paths_t paths_under(const std::string&) { return {}; }
void configure_paths(const paths_t&) {}
paths_t current_paths() { return {}; }
bool open_log(const std::string&) { return false; }
void close_log() {}
int add_log_observer(log_observer_t) { return 0; }
void remove_log_observer(int) {}
void start_event_manager() {}
void stop_event_manager() {}
void drain_event_manager() {}
}  // namespace agent
