// The one libcurl transfer of the module: one URL into one local file, with
// resume, rollback, retries, periodic flushes and progress into the status.
// The only place that sets libcurl transfer options.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>

#include <curl/curl.h>

#include "records/update_ini.h"

namespace update {

class body_hash_t;  // transfer/body_hash.h

// Handed to the progress callbacks when download_fsync_size is not 0. Lives
// on the stack of download_file and is filled anew for each attempt.
struct flush_context_t {
  FILE* file = nullptr;
  uint64_t last_flushed = 0;    // dlnow of this attempt at the last flush
  uint64_t flush_interval = 0;  // download_fsync_size
};

// What bounds one attempt of a transfer besides the low-speed limit, which a
// server that sends a little now and then keeps to.
struct transfer_limits_t {
  uint64_t most = 0;     // the file never grows past most bytes; 0: no limit
  uint64_t time_ms = 0;  // the longest the attempt may take; 0: no limit
};

// A file of size bytes (0: not known) fetched with params: most is size, and
// an attempt may take the connect time, the low-speed time and twice as long
// as size bytes take at the low speed (counted as at least 1 byte a second).
// A file without a size has no time limit.
transfer_limits_t file_limits(const params_t& params, uint64_t size);

// Called on the update worker by the retrieval of update.ini (resume false)
// and by the download stage (resume true). Returns true when the file is
// complete. False when the target cannot be opened, the attempts
// (download_retry + 1) are used up, or the module was stopped; the failure
// has then been reported through report_error, and the caller only stops.
// Never deletes the target: a partial file is what the next call resumes
// from. A server that will not continue a file (CURLE_RANGE_ERROR,
// CURLE_BAD_DOWNLOAD_RESUME, or HTTP 416 to a range that does not start at
// 0) restarts the transfer from byte 0 without resume and without using an
// attempt. With hash, the body is hashed on its way to the file, and the
// hash follows the file through rollbacks, restarts and retries (see
// body_hash_t::result for when it holds). With limits.most, the file never
// grows past most bytes: a server that sends more fails the attempt with
// "the server sent more than MOST bytes"; an attempt that takes longer than
// limits.time_ms, or libcurl's longest limit (about 24 days), fails with
// libcurl's "Operation timed out". The handle holds no options after the
// call. Takes the module lock and the status lock, one at a time. With
// failure, a failure is not reported but its text put there, for a caller
// that has another way to the file.
bool download_file(CURL* handle, const std::string& url, const std::string& path, const params_t& params,
                   bool resume, body_hash_t* hash = nullptr, const transfer_limits_t& limits = {},
                   std::string* failure = nullptr);

// How fetch_text ended. missing: the server has no such file (HTTP 404 or
// 410, or no local file); failed: any other failure.
enum class text_fetch_t { fetched, missing, failed };

// A small file into memory, on the update worker: the same options and
// attempts as download_file, but no file, no resume and no report, so that
// the caller alone words what a failure means. A body longer than limit is
// cut after limit + 1 bytes and counts as fetched: the caller sees that it
// is too long, and a hostile server cannot make it grow. An attempt takes
// at most time_ms (0: no limit). reason is libcurl's text when failed. The
// handle holds no options after the call.
text_fetch_t fetch_text(CURL* handle, const std::string& url, const params_t& params, size_t limit,
                        uint64_t time_ms, std::string& text, std::string& reason);

// libcurl progress callbacks; both are always set, and the libcurl in use
// picks one. context is a flush_context_t or null. Returns 1 (abort) once
// the module is stopped, else moves the progress of current_file in the
// status (revision up, xml emptied, nothing saved), flushes the stream every
// flush_interval bytes of this attempt, and returns 0. Update worker only.
int xfer_progress_cb(void* context, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow);
// Truncates the counters to integers and hands over to xfer_progress_cb.
int legacy_progress_cb(void* context, double dltotal, double dlnow, double ultotal, double ulnow);

}  // namespace update
