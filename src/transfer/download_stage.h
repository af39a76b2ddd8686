// The download stage: brings the files of one rule to their final place
// through version-named temporary files, hashes and verifies them.
#pragma once
#include <curl/curl.h>

#include "records/update_ini.h"

namespace update {

// For each entry of rule in order: a file in state 2 or 3 (available, not
// skipped) is fetched with resume to local_path + ".download." + version,
// hashed as it is written there (a file taken as it stood is read back) and
// verified there, then synced, moved to local_path and left in state 4; one
// whose hash does not match the entry's is deleted and stays in state 3 with
// the mismatch as its error, and local_path is not touched. Any other entry
// is only marked ready. Every attempt has the time limit file_limits gives.
// exec_before_download runs once, before the first file that is fetched.
// Stops at the first failure, which is in the status by then.
// A temporary file already as large as the entry's non-zero size, or without
// a size one that hashes as the entry's hash, is taken without a request; a
// larger one is deleted and fetched anew. Update worker; the status lock is
// held only for short steps.
void download_rule(file_rule_t& rule, CURL* handle);

}  // namespace update
