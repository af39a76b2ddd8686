// One file, one rule: how a source's description is weighed against the
// sources a run has already taken.
#pragma once
#include <list>
#include <string>

#include "records/update_ini.h"

namespace update {

// Hashes dir + file_name into the hash of the last record of sources and
// compares it with every earlier record. True: the source goes on to
// parsing. False: it was a copy of an earlier one (logged, and its record
// removed from sources) or its file could not be hashed (reported; the
// record stays, not merged). Update worker.
bool check_source_file(std::list<update_ini_t>& sources, const std::string& dir, const char* file_name);

// Refuses ini when a file one of its rules claims, or a main rule, is
// already claimed by a merged source (reported), then runs its
// exec_before_update commands. True: the caller marks ini merged. Update
// worker.
bool merge_source(const update_ini_t& ini, const std::list<update_ini_t>& sources);

}  // namespace update
