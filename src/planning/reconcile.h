// Bringing the status together with the sources a run loaded, and seeding it
// at a first start from the saved description.
#pragma once
#include <list>
#include <string>
#include <vector>

#include "records/update_ini.h"
#include "status/status.h"

namespace update {

using plans_t = std::vector<file_rule_t*>;  // non-owning, into the run's sources

// Marks the entries this run knows as available (and skipped where a rule's
// conditions let the file pass), replaces the kept hashes with what the
// merged sources declare (carrying values over), and fills plans with the
// rules of the merged sources in order. Only when every source was merged
// are withdrawn entries removed, with their files in dir, and undeclared
// hashes dropped; otherwise both stay. dir ends in a separator. Update
// worker; takes the status lock for short steps.
void reconcile_status(std::list<update_ini_t>& sources, status_t& status, plans_t& plans, const std::string& dir);

// A first start without a status file: an entry per file of ini's rules,
// decided by version alone, then result 8 or the "Update status undefined"
// failure, and a save that ignores save_enabled. REQUIRES: status lock held.
void seed_status(status_t& status, const update_ini_t& ini, const std::string& dir);

}  // namespace update
