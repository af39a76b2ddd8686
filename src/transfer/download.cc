#include "transfer/download.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>

#include "facts/stop_flag.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "transfer/body_hash.h"

namespace update {

namespace {

using file_ptr = std::unique_ptr<FILE, file_closer_t>;
using ull = unsigned long long;

// libcurl takes no longer time limit (about 24 days).
constexpr uint64_t longest_time_ms = std::numeric_limits<int>::max();

uint64_t counter(curl_off_t value) { return value > 0 ? static_cast<uint64_t>(value) : 0; }

// Double to integer by truncation, without the undefined cases.
curl_off_t truncated(double value) {
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (!(value == value)) return 0;
  if (value >= limit) return std::numeric_limits<curl_off_t>::max();
  if (value <= -limit) return std::numeric_limits<curl_off_t>::min();
  return static_cast<curl_off_t>(value);
}

// Where a resumed attempt starts. The rollback gives up the tail of a partial
// file, which a broken connection may have left damaged; once it has worked
// it is not repeated in the same call, so retries keep what they received.
uint64_t resume_offset(const std::string& url, const std::string& path, const params_t& params,
                       bool& rolled_back) {
  const uint64_t size = file_size(path);
  if (rolled_back || params.download_rollback_size == 0) return size;
  if (params.download_rollback_size >= size) return 0;
  const uint64_t new_size = size - params.download_rollback_size;
  bool cut = false;
  {
    file_ptr file(fopen_utf8(path.c_str(), "r+b", sizeof "r+b"));
    cut = file && platform::truncate_file(file.get(), new_size);
  }
  rolled_back = cut;
  if (!cut) {
    report(1, format_message("Download error: %s -> can't truncate file: %s, size: %llu -> %llu", url.c_str(),
                             path.c_str(), ull{size}, ull{new_size}));
    return 0;
  }
  report(4, format_message("File truncated: %s, size: %llu -> %llu", path.c_str(), ull{size}, ull{new_size}));
  return new_size;
}

void store_download_offset(uint64_t offset) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  if (status.current_file) status.current_file->download_offset = offset;
}

// Every attempt sets all options again, since the reset after each transfer
// clears them. The order is kept fixed on purpose.
void set_options(CURL* handle, const std::string& url, char* error_buffer, curl_write_callback write, void* sink,
                 flush_context_t* context, const params_t& params, uint64_t offset, uint64_t time_ms) {
  curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, error_buffer);
  curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
  curl_easy_setopt(handle, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, write);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, sink);
  curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  // Older libcurl only knows the legacy callback, so both are set.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  curl_easy_setopt(handle, CURLOPT_PROGRESSFUNCTION, legacy_progress_cb);
  curl_easy_setopt(handle, CURLOPT_PROGRESSDATA, context);
#pragma GCC diagnostic pop
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, xfer_progress_cb);
  curl_easy_setopt(handle, CURLOPT_XFERINFODATA, context);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  // The low-speed limit alone lets a server that sends a little now and
  // then hold the worker for days.
  curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(std::min(time_ms, longest_time_ms)));
  curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, static_cast<long>(params.connect_timeout));
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME, static_cast<long>(params.download_lowtime));
  curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(params.download_lowspeed));
  curl_easy_setopt(handle, CURLOPT_RESUME_FROM_LARGE, static_cast<curl_off_t>(offset));
  const long keepalive = params.download_keepalive_interval;
  curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, keepalive != 0 ? 1L : 0L);
  if (keepalive != 0) {
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPIDLE, keepalive);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPINTVL, keepalive);
  }
  if (!params.tcp_nodelay.empty())
    curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, parse_bool_text(params.tcp_nodelay) ? 1L : 0L);
  // A source names where root's commands come from: no scheme beyond these,
  // and a redirect never leads to a local file.
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https,file");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  // A private authority replaces the system's, its directory of authorities
  // included: its servers alone are trusted.
  const std::string ca_file = LPARAMS::server::ca_file();
  if (!ca_file.empty()) {
    curl_easy_setopt(handle, CURLOPT_CAINFO, ca_file.c_str());
    curl_easy_setopt(handle, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  }
}

// One transfer with the options set; the handle holds none afterwards.
CURLcode perform(CURL* handle, long& response_code) {
  const CURLcode result = curl_easy_perform(handle);
  response_code = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &response_code);
  curl_easy_reset(handle);
  return result;
}

// The server will not continue the file: libcurl finds the range ignored or
// refused, or the server answers a range that starts at the end of its file
// as out of range (416), as it does for a temporary file that is whole.
bool resume_refused(CURLcode result, long response_code, uint64_t offset) {
  if (result == CURLE_RANGE_ERROR || result == CURLE_BAD_DOWNLOAD_RESUME) return true;
  return result == CURLE_HTTP_RETURNED_ERROR && response_code == 416 && offset != 0;
}

// A stream whose buffered tail cannot be written out (a full disk) holds
// less than libcurl delivered, so it fails the attempt like a write error.
bool close_stream(file_ptr& file) {
  bool written = std::fflush(file.get()) == 0 && !std::ferror(file.get());
  return std::fclose(file.release()) == 0 && written;
}

// Where the body of a download goes: the target, and the running hash once
// the target has taken the bytes.
struct body_sink_t {
  FILE* file;
  body_hash_t* hash;    // null: nothing is hashed
  uint64_t offset;      // bytes in the file before this attempt
  uint64_t most;        // the file's largest size; 0: no limit
  uint64_t taken = 0;   // bytes of this attempt the stream took
  uint64_t handed = 0;  // of which the disk was asked to start writing
  bool too_long = false;
};

// The final sync waits only for what the disk has not yet taken, so the
// disk is kept writing behind the transfer.
constexpr uint64_t writeback_step = uint64_t{8} << 20;

size_t write_body(char* bytes, size_t, size_t count, void* context) {
  auto* sink = static_cast<body_sink_t*>(context);
  // A server that sends more than the file can hold would fill the disk.
  if (sink->most != 0 && sink->offset + sink->taken + count > sink->most) {
    sink->too_long = true;
    return 0;
  }
  // A stream in error may have dropped bytes it took before (a flush of the
  // progress callback failed), so the file is no longer what was hashed.
  if (std::fwrite(bytes, 1, count, sink->file) != count || std::ferror(sink->file)) {
    if (sink->hash) sink->hash->discard();
    return 0;  // ends the transfer with a write error
  }
  if (sink->hash) sink->hash->add(bytes, count);
  sink->taken += count;
  if (sink->taken - sink->handed >= writeback_step) {
    platform::start_writeback(sink->file);
    sink->handed = sink->taken;
  }
  return count;
}

struct text_sink_t {
  std::string* text;
  size_t limit;
  bool cut = false;
};

size_t write_text(char* bytes, size_t, size_t count, void* context) {
  auto* sink = static_cast<text_sink_t*>(context);
  const size_t room = sink->limit + 1 - sink->text->size();
  if (count <= room) {
    sink->text->append(bytes, count);
    return count;
  }
  sink->text->append(bytes, room);
  sink->cut = true;
  return 0;  // ends the transfer
}

}  // namespace

transfer_limits_t file_limits(const params_t& params, uint64_t size) {
  if (size == 0) return {};
  // A connect limit libcurl would not take leaves its own, 300 s.
  const uint64_t connect = params.connect_timeout > 0 ? static_cast<uint64_t>(params.connect_timeout) : 300;
  const uint64_t slow = params.download_lowtime > 0 ? static_cast<uint64_t>(params.download_lowtime) : 0;
  const uint64_t rate = params.download_lowspeed > 0 ? static_cast<uint64_t>(params.download_lowspeed) : 1;
  const uint64_t ms = (connect + slow) * 1000 + std::min(size / rate, longest_time_ms) * 2000 + size % rate * 2000 / rate;
  return {size, ms};
}

int xfer_progress_cb(void* context, curl_off_t dltotal, curl_off_t dlnow, curl_off_t, curl_off_t) {
  if (stop_requested()) return 1;
  const uint64_t now = counter(dlnow);
  {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    if (file_status_t* file = status.current_file) {
      ++status.revision;
      status.xml.clear();
      file->download_size = file->download_offset + now;
      if (dltotal != 0) file->total_size = file->download_offset + counter(dltotal);
    }
  }
  auto* flush = static_cast<flush_context_t*>(context);
  if (flush && now >= flush->last_flushed + flush->flush_interval) {
    flush->last_flushed = now;
    std::fflush(flush->file);
  }
  return 0;
}

int legacy_progress_cb(void* context, double dltotal, double dlnow, double ultotal, double ulnow) {
  return xfer_progress_cb(context, truncated(dltotal), truncated(dlnow), truncated(ultotal), truncated(ulnow));
}

bool download_file(CURL* handle, const std::string& url, const std::string& path, const params_t& params,
                   bool resume, body_hash_t* hash, const transfer_limits_t& limits, std::string* failure) {
  auto fail = [failure](const std::string& text) {
    if (failure)
      *failure = text;
    else
      report_error(text);
    return false;
  };
  char error_buffer[CURL_ERROR_SIZE] = {};
  int32_t retry = 0;
  bool rolled_back = false;
  CURLcode result = CURLE_OK;
  for (;;) {
    uint64_t offset = resume ? resume_offset(url, path, params, rolled_back) : 0;
    for (;;) {
      store_download_offset(offset);
      file_ptr file(fopen_utf8(path.c_str(), offset != 0 ? "ab" : "wb", sizeof "ab"));
      if (!file)
        return fail(format_message("Download error: %s -> can't open file for writing: %s", url.c_str(), path.c_str()));
      // The file is ours to write now, and "wb" has emptied it.
      if (hash) hash->begin(path, offset);
      report(4, format_message("Download begin: %s -> %s, offset: %llu, retry: %d/%d", url.c_str(), path.c_str(),
                               ull{offset}, retry, params.download_retry));
      flush_context_t context{file.get(), 0, params.download_fsync_size};
      body_sink_t sink{file.get(), hash, offset, limits.most};
      set_options(handle, url, error_buffer, write_body, &sink,
                  params.download_fsync_size != 0 ? &context : nullptr, params, offset, limits.time_ms);
      long response_code = 0;
      result = perform(handle, response_code);
      // The disk takes the tail while the hash catches up.
      if (hash && std::fflush(file.get()) == 0) platform::start_writeback(file.get());
      const bool closed = close_stream(file);
      if (hash) {
        hash->end();
        if (!closed) hash->discard();
      }
      if (!closed && result == CURLE_OK) result = CURLE_WRITE_ERROR;
      if (sink.too_long)
        std::snprintf(error_buffer, sizeof error_buffer, "the server sent more than %llu bytes", ull{limits.most});
      if (result == CURLE_OK) {
        report(4, format_message("Download completed: %s -> %s", url.c_str(), path.c_str()));
        return true;
      }
      if (!resume || !resume_refused(result, response_code, offset)) break;
      report(1, format_message("Download resume failed: %s -> %s : %s", url.c_str(), curl_easy_strerror(result),
                               error_buffer));
      resume = false;
      offset = 0;
    }
    if (stop_requested()) break;
    if (retry >= params.download_retry) break;
    ++retry;
  }
  const char* reason = error_buffer[0] != 0 ? error_buffer : curl_easy_strerror(result);
  return fail(format_message("Download error: %s -> %s", url.c_str(), reason));
}

text_fetch_t fetch_text(CURL* handle, const std::string& url, const params_t& params, size_t limit,
                        uint64_t time_ms, std::string& text, std::string& reason) {
  char error_buffer[CURL_ERROR_SIZE] = {};
  for (int32_t retry = 0;; ++retry) {
    text.clear();
    text_sink_t sink{&text, limit};
    set_options(handle, url, error_buffer, write_text, &sink, nullptr, params, 0, time_ms);
    long code = 0;
    const CURLcode result = perform(handle, code);
    if (result == CURLE_OK || sink.cut) return text_fetch_t::fetched;
    if ((result == CURLE_HTTP_RETURNED_ERROR && (code == 404 || code == 410)) ||
        result == CURLE_FILE_COULDNT_READ_FILE)
      return text_fetch_t::missing;
    if (stop_requested() || retry >= params.download_retry) {
      reason = error_buffer[0] != 0 ? error_buffer : curl_easy_strerror(result);
      return text_fetch_t::failed;
    }
  }
}

}  // namespace update
