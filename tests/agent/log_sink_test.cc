// The log: one line per record whatever the attributes hold, and observers
// that see every record and can be removed safely.
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>

#include "agent/agent.h"
#include "fixtures/scratch_dir.h"
#include "platform/log.h"

namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(agent::open_log(path_)); }
  void TearDown() override { agent::close_log(); }
  std::vector<std::string> lines() const {
    std::istringstream in(fixtures::read_file(path_));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
  }
  fixtures::scratch_dir_t dir_;
  const std::string path_ = dir_.path("sub/dir/corvid_update.log");
};

TEST_F(LogTest, EveryRecordStaysOneLineWithItsFieldsEscaped) {
  {
    TLogMessage log(log_id_failure);
    log.append_attr(log_attr_text, "two\nlines").append_attr(log_attr_text, "tab\there\r\\ \x01 end");
  }
  { TLogMessage empty(log_id_course); }
  const auto all = lines();
  ASSERT_EQ(all.size(), 2u);
  const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\t)");
  for (const auto& line : all) EXPECT_TRUE(std::regex_match(line.substr(0, 25), stamp)) << line;
  EXPECT_EQ(all[0].substr(25), "365\ttwo\\nlines\ttab\\there\\r\\\\ \\x01 end");
  EXPECT_EQ(all[1].substr(25), "367");
}

TEST_F(LogTest, RecordsFromManyThreadsNeverInterleave) {
  constexpr int threads = 4, per_thread = 300;
  std::vector<std::thread> senders;
  for (int t = 0; t < threads; ++t) {
    senders.emplace_back([t] {
      const std::string long_text(3000, static_cast<char>('a' + t));
      for (int i = 0; i < per_thread; ++i) TLogMessage(log_id_course).append_attr(log_attr_text, long_text);
    });
  }
  for (auto& s : senders) s.join();
  const auto all = lines();
  ASSERT_EQ(all.size(), static_cast<size_t>(threads * per_thread));
  for (const auto& line : all) {
    const std::string text = line.substr(line.rfind('\t') + 1);
    ASSERT_EQ(text.size(), 3000u);
    ASSERT_EQ(text.find_first_not_of(text[0]), std::string::npos);
  }
}

TEST_F(LogTest, ObserversSeeRecordsUntilRemovedAndMayRemoveThemselves) {
  std::vector<std::pair<uint16_t, std::vector<std::string>>> seen;
  const int watcher = agent::add_log_observer(
      [&](uint16_t id, const std::vector<std::string>& attrs) { seen.emplace_back(id, attrs); });
  int self = 0, self_calls = 0;
  self = agent::add_log_observer([&](uint16_t, const std::vector<std::string>&) {
    ++self_calls;
    agent::remove_log_observer(self);  // must not wait for itself
    TLogMessage(log_id_notice).append_attr(log_attr_text, "from inside");
  });
  TLogMessage(log_id_course).append_attr(log_attr_text, "a").append_attr(log_attr_text, "b");
  TLogMessage(log_id_course).append_attr(log_attr_text, "c");
  agent::remove_log_observer(watcher);
  TLogMessage(log_id_course).append_attr(log_attr_text, "unseen");

  EXPECT_EQ(self_calls, 1);
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].first, log_id_course);
  EXPECT_EQ(seen[0].second, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(seen[1].second, (std::vector<std::string>{"from inside"}));
  EXPECT_EQ(seen[2].second, (std::vector<std::string>{"c"}));
  EXPECT_EQ(lines().size(), 4u);
}

}  // namespace
