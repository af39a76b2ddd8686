#include <gtest/gtest.h>

#include <sstream>

#include "description/loader.h"
#include "description/update_ini.h"
#include "fixtures/log_records.h"
#include "support/ini_file.h"

namespace {

using update::update_ini_t;

update_ini_t read_params_of(const std::string& text) {
  std::istringstream in(text);
  CIniFile ini_file(in);
  update_ini_t ini;
  update::read_params(ini_file, update::product_section_name(), ini);
  return ini;
}

// Every setting as " key=value ", so that a row names the one it checks.
std::string settings_text(const update_ini_t& ini) {
  std::ostringstream out;
  out << " connect_timeout=" << ini.connect_timeout << " download_lowtime=" << ini.download_lowtime
      << " download_lowspeed=" << ini.download_lowspeed << " download_keepalive_interval="
      << ini.download_keepalive_interval << " download_retry=" << ini.download_retry
      << " download_rollback_size=" << ini.download_rollback_size << " download_fsync_size="
      << ini.download_fsync_size << " timeout=" << ini.timeout << " message=" << ini.message
      << " silent=" << ini.silent << " tcp_nodelay=" << ini.tcp_nodelay << " ";
  return out.str();
}

TEST(ReadParams, ValueRulesByTheTable) {
  const std::string head = "[" + update::product_section_name() + "]\n";
  const std::pair<std::string, std::string> rows[] = {
      // A loaded record never keeps a constructor value.
      {"", "connect_timeout=60 download_lowtime=10 download_lowspeed=10 download_keepalive_interval=30 "
           "download_retry=0 download_rollback_size=0 download_fsync_size=0 timeout=0 message= silent=1 tcp_nodelay="},
      {"connect_timeout=abc", "connect_timeout=60"},
      {"connect_timeout=-1", "connect_timeout=-1"},
      {"connect_timeout=12abc", "connect_timeout=60"},
      {"connect_timeout=99999999999", "connect_timeout=2147483647"},
      {"connect_timeout=-99999999999", "connect_timeout=-2147483648"},
      {"connect_timeout=99999999999999999999999", "connect_timeout=2147483647"},
      {"Connect_Timeout=5", "connect_timeout=60"},  // keys compare exactly
      {"download_lowspeed=1\ndownload_lowspeed=2", "download_lowspeed=2"},
      {"timeout=20\nmessage_timeout=x", "timeout=20"},
      {"timeout=20\nmessage_timeout=5", "timeout=5"},
      {"message=", "silent=1"},
      {"message=hello", "silent="},
      {"message=hello\nsilent=yes", "silent=yes"},
      {"silent=", "silent="},
      {"download_rollback_size=1k", "download_rollback_size=0"},
      {"download_rollback_size=-1", "download_rollback_size=0"},
      {"download_rollback_size=9223372036854775807", "download_rollback_size=9223372036854775807"},
      {"download_rollback_size=9223372036854775808", "download_rollback_size=0"},
      {"download_fsync_size=18446744073709551615", "download_fsync_size=0"},
      {"download_fsync_size=99999999999999999999", "download_fsync_size=0"},
      {"download_fsync_size=65536", "download_fsync_size=65536"},
      {"tcp_nodelay=on", "tcp_nodelay=on"},
      // Repeated product sections are searched from the last.
      {"connect_timeout=5\nmessage=a\n" + head, "connect_timeout=5"},
      {"message=a\n[other]\nmessage=b\n" + head + "message=c", "message=c"},
  };
  for (const auto& [lines, expected] : rows) {
    update_ini_t ini = read_params_of(head + lines + "\n");
    EXPECT_NE(settings_text(ini).find(" " + expected + " "), std::string::npos) << lines << "\n" << settings_text(ini);
  }
}

TEST(ReadParams, WarnsAboutKeepaliveUnlessTurnedOff) {
  const std::pair<std::string, size_t> rows[] = {
      {"", 1}, {"download_keepalive_interval=15", 1}, {"download_keepalive_interval=0", 0}};
  for (const auto& [lines, warnings] : rows) {
    fixtures::log_records_t logs;
    read_params_of("[" + update::product_section_name() + "]\n" + lines + "\n");
    auto found = logs.all("libcurl dosn't support CURLOPT_TCP_KEEPALIVE");
    EXPECT_EQ(found.size(), warnings) << lines;
    for (const auto& w : found) EXPECT_EQ(w.id, 366);
  }
}

TEST(ParseBoolText, TrueOnlyForTheFourWordsInAnyCase) {
  for (const char* text : {"1", "on", "ON", "Yes", "TRUE", "tRuE"}) EXPECT_TRUE(update::parse_bool_text(text)) << text;
  for (const char* text : {"0", "", "no", "2", " 1", "true ", "yess", "y"})
    EXPECT_FALSE(update::parse_bool_text(text)) << text;
}

}  // namespace
