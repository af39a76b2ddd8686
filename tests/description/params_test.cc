#include <gtest/gtest.h>

#include <sstream>

#include "description/loader.h"
#include "description/update_ini.h"
#include "fixtures/log_records.h"
#include "support/ini_file.h"

namespace update {
namespace {

// Every setting as " key=value ", so that a row names the one it checks.
std::string settings_of(const std::string& text) {
  std::istringstream in("[" + product_section_name() + "]\n" + text + "\n");
  CIniFile ini_file(in);
  update_ini_t ini;
  read_params(ini_file, product_section_name(), ini);
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
  const std::string head = "[" + product_section_name() + "]\n";
  const std::pair<std::string, std::string> rows[] = {
      // A loaded record never keeps a constructor value.
      {"", "connect_timeout=60 download_lowtime=10 download_lowspeed=10 download_keepalive_interval=30 "
           "download_retry=0 download_rollback_size=0 download_fsync_size=0 timeout=0 message= silent=1 tcp_nodelay="},
      {"connect_timeout=12abc", "connect_timeout=60"},
      {"connect_timeout=-99999999999", "connect_timeout=-2147483648"},
      {"connect_timeout=99999999999999999999999", "connect_timeout=2147483647"},
      {"download_lowspeed=1\ndownload_lowspeed=2", "download_lowspeed=2"},
      {"timeout=20\nmessage_timeout=x", "timeout=20"},
      {"timeout=20\nmessage_timeout=5", "timeout=5"},
      {"message=hello", "silent="},
      {"message=hello\nsilent=yes", "silent=yes"},
      {"download_rollback_size=-1", "download_rollback_size=0"},
      {"download_rollback_size=9223372036854775807", "download_rollback_size=9223372036854775807"},
      {"download_rollback_size=9223372036854775808", "download_rollback_size=0"},
      {"download_fsync_size=99999999999999999999", "download_fsync_size=0"},
      // Repeated product sections are searched from the last.
      {"connect_timeout=5\nmessage=a\n" + head, "connect_timeout=5"},
      {"message=a\n[other]\nmessage=b\n" + head + "message=c", "message=c"},
  };
  for (const auto& [lines, expected] : rows)
    EXPECT_NE(settings_of(lines).find(" " + expected + " "), std::string::npos) << lines << "\n" << settings_of(lines);
}

TEST(ReadParams, WarnsAboutKeepaliveUnlessTurnedOff) {
  for (const auto& [lines, warnings] : {std::pair{"", 1u}, {"download_keepalive_interval=0", 0u}}) {
    fixtures::log_records_t logs;
    settings_of(lines);
    EXPECT_EQ(logs.all("libcurl dosn't support CURLOPT_TCP_KEEPALIVE").size(), warnings) << lines;
  }
}

TEST(ParseBoolText, TrueOnlyForTheFourWordsInAnyCase) {
  for (const char* text : {"1", "ON", "Yes", "tRuE"}) EXPECT_TRUE(parse_bool_text(text)) << text;
  for (const char* text : {"0", "", "2", " 1", "yess"}) EXPECT_FALSE(parse_bool_text(text)) << text;
}

}  // namespace
}  // namespace update
