// Packed UTC times and their text forms.
#pragma once
#include <cstdint>
#include <string>

namespace update {

// Seconds, minutes, hours, day, month-from-0 in the five low bytes, from the
// low byte up, and the full year above bit 40. Compares as an integer.
using packed_time_t = uint64_t;
constexpr packed_time_t bad_time = ~packed_time_t{0};

packed_time_t packed_now();
packed_time_t parse_time(const std::string& text);
void time_text_iso(packed_time_t t, std::string& out);       // assigns "%Y-%m-%dT%H:%M:%S"
void time_text_gmt(packed_time_t t, std::string& out);       // assigns "%Y.%m.%d %H:%M:%S GMT"
void time_text_dmy_gmt(packed_time_t t, std::string& out);   // appends "%d.%m.%Y %H:%M:%S GMT"
void time_text_local(packed_time_t t, std::string& out);     // appends local time
int64_t packed_to_time(packed_time_t t);
const char* time_local_text(int64_t seconds, char (&buffer)[32]);
void time_ctime_text(int64_t seconds, std::string& out);     // appends

// The current time as the status stores it.
std::string now_text();

}  // namespace update
