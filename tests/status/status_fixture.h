// A clean module whose update directory is a fresh scratch directory, with a
// record of every log line: the base of the tests that work on the status.
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
    LPARAMS::server::set_update_dir(dir_.path());
    LPARAMS::server::set_verify_downloads(true);
    platform::file_faults().fail_replace = platform::file_faults().fail_sync = false;
  }
  void TearDown() override { reset_module_for_tests(); }

  // A status that is never saved, with one current message to take errors.
  static void quiet(const std::string& uri = "") {
    status.reset();
    status.save_enabled = false;
    status.select_message(uri);
  }
  static void set_module_state(module_state_t state) {
    std::lock_guard<std::mutex> hold(module_lock);
    module_state = state;
  }
  static std::string reported() {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.current_message ? status.current_message->text : "";
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
  size_t logged(const std::string& text) const { return log_.all(text).size(); }
  std::string status_path() const { return dir_.path("corvid_update_status.xml"); }

  fixtures::scratch_dir_t dir_;
  fixtures::log_records_t log_;
};

}  // namespace update::testing
