#include "support/time_text.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace update {
namespace {

constexpr packed_time_t example = 0x7E80205070809;  // 2024-03-05 07:08:09
constexpr int64_t example_seconds = 1709622489;

TEST(TimeText, PacksFieldsByWeight) {
  EXPECT_EQ(parse_time("2024.03.05 07:08:09"), example);
  std::string text;
  time_text_iso(example, text);
  EXPECT_EQ(text, "2024-03-05T07:08:09");
  EXPECT_EQ(packed_to_time(example), example_seconds);
  EXPECT_LT(parse_time("2024.03.05 07:08:10"), parse_time("2024.03.06 00:00:00"));
}

TEST(TimeText, ParsesLikeTheScanOfSixUnsignedFields) {
  const struct {
    const char* text;
    packed_time_t expected;
  } rows[] = {
      {"  2024.3.5   7:8:9 trailing", example},  // blanks before numbers, anything after
      {"2024.03.0507:08:09", bad_time},           // the day swallows the hours
      {"2024.00.05 07:08:09", bad_time},          {"2024.03.00 07:08:09", bad_time},
      {"1899.12.31 23:59:59", bad_time},          {"16777216.01.01 00:00:00", bad_time},
      {"2024.03.05 07:08", bad_time},             {"2024-03-05 07:08:09", bad_time},
      {"", bad_time},                             {"99999999999999999999999.01.01 00:00:00", bad_time},
      {"2024.13.05 99:08:09", 0x7E80C05630809ull},   // packed as it stands
      {"2024.03.300 07:08:09", 0x7E8022C070809ull},  // cut to 8 bits
      {"2024.-1.05 07:08:09", 0x7E8FE05070809ull},   // -1 wraps; the month byte keeps 0xFE
  };
  for (const auto& row : rows) EXPECT_EQ(parse_time(row.text), row.expected) << row.text;
}

TEST(TimeText, EveryFormHasItsOwnPlaceholder) {
  const packed_time_t year_1899 = packed_time_t{1899} << 40 | 0x0001000000;
  for (packed_time_t bad : {bad_time, year_1899}) {
    std::string iso = "x", gmt = "x", dmy = "x", local = "x";
    time_text_iso(bad, iso);
    time_text_gmt(bad, gmt);
    time_text_dmy_gmt(bad, dmy);
    time_text_local(bad, local);
    EXPECT_EQ(iso + "|" + gmt + "|" + dmy + "|" + local, "0000-00-00T00:00:00|0000.00.00 00:00:00|xError time|xError time");
    EXPECT_EQ(packed_to_time(bad), -1);
  }
  std::string gmt, dmy = "at ";
  time_text_gmt(example, gmt);
  time_text_dmy_gmt(example, dmy);
  EXPECT_EQ(gmt, "2024.03.05 07:08:09 GMT");
  EXPECT_EQ(dmy, "at 05.03.2024 07:08:09 GMT");
}

TEST(TimeText, LocalFormsFollowTheZoneAndSayHowFarTheConversionGot) {
  const char* tz = std::getenv("TZ");
  const std::string saved = tz ? tz : "";
  setenv("TZ", "UTC-3", 1);  // three hours east of UTC, no daylight saving
  tzset();
  std::string text;
  time_text_local(example, text);
  EXPECT_EQ(text, "05.03.2024 10:08:09");
  text.clear();
  time_text_local(parse_time("1960.01.02 03:04:05"), text);  // no seconds before 1970
  EXPECT_EQ(text, "02.01.1960 03:04:05 GMT");
  char buffer[32];
  EXPECT_STREQ(time_local_text(example_seconds, buffer), "2024.03.05 10:08:09");
  text = "at ";
  time_ctime_text(example_seconds, text);
  EXPECT_EQ(text, "at Tue Mar  5 10:08:09 2024");
  text.clear();
  time_ctime_text(-5, text);
  EXPECT_EQ(text, "Bad time");
  tz ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
  tzset();
}

}  // namespace
}  // namespace update
