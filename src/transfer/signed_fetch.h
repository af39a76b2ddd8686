// Brings a source's description to the local disk only once its signature
// has passed: what the run driver calls instead of fetch_update_ini when
// the agent trusts keys.
#pragma once
#include <string>

#include <curl/curl.h>

#include "facts/trust.h"
#include "records/update_ini.h"

namespace update {

// Called by the run driver for each source, on the update worker, when
// checks_signatures(trust). Fetches uri's "update.ini" (as
// fetch_update_ini does, to update_path + file_name + ".unchecked") and
// then its "update.ini.sig" (same URI rule, into memory, at most
// signature_file_limit bytes), and checks the signature against the exact
// bytes fetched, trust.keys, now and the highest serial trust.serials holds
// for uri. Only a source that passes gets its description renamed to
// update_path + file_name and its serial stored in trust.serials and the
// serials file (durably, before this returns). Otherwise the saved
// description, the serials and their file are left as they were, the
// temporary file is removed, and the failure has been reported into the
// status's current message: "Signature check failed: " and the reason (or
// trust.refusal), the retrieval's own error, or "Failed to save accepted
// serials to file: PATH".
bool fetch_signed_update_ini(const std::string& uri, const std::string& update_path, const char* file_name,
                             CURL* handle, const params_t& params, trust_t& trust);

}  // namespace update
