// The install stage: runs the commands of one rule whose files are on disk,
// either its command list or the pair exec_sys (run here) and exec_user
// (handed to the client), after asking the client unless the update is
// silent or the command is a manual install.
#pragma once
#include <string>

#include "records/command.h"
#include "records/update_ini.h"

namespace update {

// Runs on the update worker, holding no lock across a question, a command
// or a wait. Moves the rule's files to 5 and, when every step succeeded,
// to 6; an early return leaves them in 5 with current_rule set, so that
// the errors land on them. update_path is the run's working directory.
// A malformed client reply leaves through the exception of install/notify.h.
void install_rule(file_rule_t& rule, Command command, const std::string& update_path);

}  // namespace update
