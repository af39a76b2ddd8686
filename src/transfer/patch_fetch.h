// A file brought through a patch its description offers, when the file the
// agent holds at the entry's place (its last download) is that patch's base.
#pragma once
#include <curl/curl.h>

#include <string>

#include "records/update_ini.h"

namespace update {

// Called by the download stage for an entry it is about to fetch, on the
// update worker. Finds the patch whose base hash the file at local_path has
// (hashed here, in the base hash's type), fetches it to patch_name (resumed,
// no further than its size, hashed on its way), checks its hash, applies it
// with the base mapped into memory to patched_name, the result hashed as it
// is written, and renames that to download_name only when the result has
// the entry's size and hash. True then, with calculated the result's hash:
// the caller goes on as with a whole download there.
// False when the caller is to fetch the whole file: with no patch, with a
// whole download or the promised file already there, or after one notice
// "[NAME] patch not used, fetching the whole file: WHY" for a patch that
// does not serve (no base, no patch for the base, a transfer that fails, a
// patch or a result that does not verify, a patch that does not apply).
// The patch's files are gone then, but for a partial patch when the module
// is stopping, which the next run resumes. Nothing reaches the status's
// errors; download_name is never touched on the way.
bool fetch_by_patch(CURL* handle, const file_entry_t& entry, const std::string& version, const params_t& params,
                    std::string& calculated);

}  // namespace update
