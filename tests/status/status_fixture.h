// A clean module whose update directory is a fresh scratch directory, with a
// record of every log line, for the tests of the status.
#pragma once
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "platform/log.h"
#include "status/status.h"

namespace update::testing {

class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_module_for_tests();
    status.reset();
    LPARAMS::server::set_update_dir(dir_.path());
  }
  void TearDown() override {
    auto& faults = platform::file_faults();
    faults.fail_replace = faults.fail_truncate = faults.fail_open_write = faults.fail_sync = false;
    LPARAMS::server::set_update_dir("");
    status.reset();
  }
  std::vector<fixtures::log_record_t> log_with_id(uint16_t id) const {
    std::vector<fixtures::log_record_t> found;
    for (auto& r : log_.all())
      if (r.id == id) found.push_back(r);
    return found;
  }
  std::string status_path() const { return dir_.path("corvid_update_status.xml"); }
  static std::string read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  fixtures::scratch_dir_t dir_;
  fixtures::log_records_t log_;
};

}  // namespace update::testing
