// A clean module whose update directory is a fresh scratch directory, with a
// record of every log line.
#pragma once
#include <gtest/gtest.h>

#include "fixtures/log_records.h"
#include "fixtures/scratch_dir.h"
#include "frame/module.h"
#include "platform/file_ops.h"
#include "platform/local_params.h"
#include "platform/log.h"
#include "status/status.h"

namespace update::testing {

using fixtures::read_file;

class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset_module_for_tests();
    status.reset();
    LPARAMS::server::set_update_dir(dir_.path());
  }
  void TearDown() override {
    platform::file_faults().fail_replace = false;
    LPARAMS::server::set_update_dir("");
    status.reset();
  }
  // The log so far as "id attr attr;" per record, of one id or of all.
  std::string log_text(uint16_t id = 0) const {
    std::string text;
    for (const auto& r : log_.all()) {
      if (id && r.id != id) continue;
      text += std::to_string(r.id);
      for (const auto& a : r.attrs) text += " " + a;
      text += ";";
    }
    return text;
  }
  std::string status_path() const { return dir_.path("corvid_update_status.xml"); }

  fixtures::scratch_dir_t dir_;
  fixtures::log_records_t log_;
};

}  // namespace update::testing
