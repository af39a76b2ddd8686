// What the transfer tests share: file bytes, log texts, and a module that is
// running with a quiet status.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "fixtures/log_records.h"
#include "fixtures/nginx_server.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "platform/file_ops.h"
#include "platform/log.h"
#include "status/status.h"

namespace update::transfer_test {

inline std::string random_bytes(size_t count, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string bytes(count, '\0');
  for (auto& b : bytes) b = static_cast<char>(engine() & 0xff);
  return bytes;
}

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

inline void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// -1 when the file is missing.
inline int64_t disk_size(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

// The last attribute of each record with this id that starts with prefix,
// in order; with id 367 only the records of the "download" stage count.
inline std::vector<std::string> texts(const fixtures::log_records_t& log, uint16_t id, const std::string& prefix) {
  std::vector<std::string> found;
  for (const auto& r : log.all(prefix)) {
    if (r.id != id || r.attrs.back().compare(0, prefix.size(), prefix) != 0) continue;
    if (id == log_id_course && (r.attrs.size() != 2 || r.attrs.front() != "download")) continue;
    found.push_back(r.attrs.back());
  }
  return found;
}

// The module running (a stopped module aborts every transfer), a status
// that is never written to disk, a fresh handle, no injected faults.
class transfer_test_t : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_module_for_tests();
    set_module_state(module_busy);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.save_enabled = false;
  }
  void TearDown() override {
    curl_easy_cleanup(handle);
    auto& faults = platform::file_faults();
    faults.fail_truncate = false;
    faults.fail_open_write = false;
    reset_module_for_tests();
  }

  static void set_module_state(module_state_t state) {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = state;
  }

  // Limits that keep a broken test short; nothing here slows a good one.
  static params_t quick_params() {
    params_t p;
    p.connect_timeout = 5;
    p.download_lowtime = 10;
    p.download_lowspeed = 1;
    return p;
  }

  // Makes the status entry of name current, as the download stage does.
  static file_status_t& make_current_file(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.current_file = &status.file_entry(name);
    return *status.current_file;
  }

  static std::string ranges_of(const std::vector<fixtures::served_request_t>& requests) {
    std::string text;
    for (const auto& r : requests) text += "[" + (r.range.empty() ? std::string("-") : r.range) + " " + std::to_string(r.status) + "]";
    return text;
  }

  CURL* handle = curl_easy_init();
  fixtures::scratch_dir_t dir;
  fixtures::log_records_t log;
};

}  // namespace update::transfer_test
