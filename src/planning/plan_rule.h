// The per-file decision: what the status remembers, what the disk holds and
// what the description says now decide from which state each file goes on.
// A finished step is kept while the rule stands, a half-finished one is
// repeated, and work for an update that has changed is thrown away.
#pragma once
#include <string>

#include "records/update_ini.h"
#include "status/status.h"

namespace update {

// Leaves every status entry of rule in a state from 1 to 6 and sets the
// rule's current_version. dir is the update directory with its separator.
// Holds the status lock for one file's whole decision, deletions included;
// reads version records outside it. Update worker.
void plan_rule(file_rule_t& rule, const std::string& dir);

// Empties uri and download_hash and zeroes the two sizes; the state, the
// versions, the times and download_offset stay.
void forget_download(file_status_t& entry);

// "state[, current version: V][, update version: U][, last error: E]".
std::string status_line(const file_status_t& entry);

}  // namespace update
