// Directories and product values of the agent. Each directory text is what
// the agent configured; systemVarDir ends in the path separator.
#pragma once
#include <string>

std::string agentTmpDir();
std::string agentBinDir();
std::string agentLibDir();
std::string agentEtcDir();
std::string systemEtcDir();
std::string systemLogDir();
std::string systemVarDir();
std::string systemVarEtcDir();
std::string systemTmpDir();

std::string productVersion();
std::string productBuild();
std::string productTarget();
std::string productOs();
std::string productCpu();
std::string productVendor();

// Creates the directory (and its parents) with rwx for the owner only.
// Returns 0 on success or when it exists, -1 otherwise.
int agent_fs_mkdir_if_not_exist_rwx_usr(const std::string& path);

// Makes sure the owner may write the companion of a file that is about to be
// replaced. Returns 0 on success, -1 otherwise; callers do not look.
int agent_fs_chmod_bak_rw_usr(const std::string& bak_path, const std::string& path);
