// The agent services and the module frame that the status sources call,
// reduced to what the reader's fuzz target needs: nothing here is reached by
// reading and rendering, only by saving and hashing, which it never does.
#include <string>

#include "platform/agent_paths.h"
#include "platform/hash_file.h"
#include "platform/log.h"
#include "records/command.h"

TLogMessage::~TLogMessage() = default;

int agent_fs_chmod_bak_rw_usr(const std::string&, const std::string&) { return 0; }

bool HashFileChecker::CalcHash(const std::string&, const std::string&, std::string&) { return false; }

namespace update {
const char* command_text(Command) { return "check"; }
void update_dir_path(std::string& path) { path = "/nonexistent/update"; }
}  // namespace update
