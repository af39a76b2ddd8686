// What the transfer tests share: a running module with a quiet status, a
// source file, the servers that offer it, and the texts logged.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <string>
#include <vector>

#include <curl/curl.h>

#include "fixtures/fault_server.h"
#include "status/status_fixture.h"
#include "transfer/download.h"

namespace update::transfer_test {

using fixtures::read_file;
using fixtures::write_file;

inline std::string random_bytes(size_t count, uint32_t seed) {
  std::mt19937 engine(seed);
  std::string bytes(count, '\0');
  for (auto& b : bytes) b = static_cast<char>(engine() & 0xff);
  return bytes;
}

// -1 when the file is missing.
inline int64_t disk_size(const std::string& path) {
  struct stat st{};
  return stat(path.c_str(), &st) == 0 ? static_cast<int64_t>(st.st_size) : -1;
}

inline std::string ranges_of(const std::vector<fixtures::served_request_t>& requests) {
  std::string text;
  for (const auto& r : requests) text += "[" + (r.range.empty() ? "-" : r.range) + " " + std::to_string(r.status) + "]";
  return text;
}

// The module running (a stopped module aborts every transfer), a status that
// is never written to disk, and a fresh handle.
class transfer_test_t : public testing::StatusTest {
 protected:
  void SetUp() override {
    StatusTest::SetUp();
    platform::file_faults().fail_truncate = false;
    set_module_state(module_busy);
    quiet();
  }
  void TearDown() override {
    curl_easy_cleanup(handle);
    StatusTest::TearDown();
  }

  static void set_module_state(module_state_t state) {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = state;
  }
  // Limits that keep a broken test short; nothing here slows a good one.
  static params_t quick_params(int retry = 0) {
    params_t p;
    p.connect_timeout = 5, p.download_lowtime = 10, p.download_lowspeed = 1, p.download_retry = retry;
    return p;
  }
  // Makes the status entry of name current, as the download stage does.
  static file_status_t& make_current_file(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return *(status.current_file = &status.file_entry(name));
  }
  // The last attribute of each record with this id that starts with prefix.
  std::vector<std::string> texts(uint16_t id, const std::string& prefix) const {
    std::vector<std::string> found;
    for (const auto& r : log_.all(prefix))
      if (r.id == id && r.attrs.back().compare(0, prefix.size(), prefix) == 0) found.push_back(r.attrs.back());
    return found;
  }
  bool start_nginx() {
    std::string error;
    const bool ok = nginx.start(error) && nginx.put_file("f.bin", source);
    EXPECT_TRUE(ok) << error;
    return ok;
  }
  bool serve(const std::vector<std::string>& faults) { return server.start(dir_.write("source", source), faults); }

  CURL* handle = curl_easy_init();
  const std::string source = random_bytes(3000, 7);
  const std::string target = dir_.path("f.bin.download.2");
  fixtures::nginx_server_t nginx;
  fixtures::fault_server_t server;
};

}  // namespace update::transfer_test
