// Packed UTC times and their text forms. Nothing here raises or reports: a
// time that cannot be had gives each form's own placeholder. Safe from any
// thread (the local forms read the process's time zone).
#pragma once
#include <cstdint>
#include <string>

namespace update {

// Seconds, minutes, hours, day, month-from-0 in the five low bytes, from the
// low byte up, and the full year above bit 40. Compares as an integer.
// A year below 1900 unpacks as a bad time.
using packed_time_t = uint64_t;
constexpr packed_time_t bad_time = ~packed_time_t{0};

// The system clock as UTC; bad_time if it cannot be read.
packed_time_t packed_now();
// Scans "year.month.day hours:minutes:seconds" (six unsigned numbers, text
// after them ignored). bad_time if a field is missing, the year is outside
// 1900 to 0xFFFFFF, or the month or day is 0; other fields are packed as
// they stand, cut to 8 bits.
packed_time_t parse_time(const std::string& text);

void time_text_iso(packed_time_t t, std::string& out);      // assigns "%Y-%m-%dT%H:%M:%S", else "0000-00-00T00:00:00"
void time_text_gmt(packed_time_t t, std::string& out);      // assigns "%Y.%m.%d %H:%M:%S GMT", else "0000.00.00 00:00:00"
void time_text_dmy_gmt(packed_time_t t, std::string& out);  // appends "%d.%m.%Y %H:%M:%S GMT", else "Error time"
// Appends "%d.%m.%Y %H:%M:%S" in local time; the UTC text with " GMT" if the
// time has no seconds count, with " UTC" if it has no local form; else
// "Error time".
void time_text_local(packed_time_t t, std::string& out);

// Conversions through seconds since 1970 accept 1970-01-01T00:00:00 to
// 3000-12-31T23:59:59 UTC on every system; outside it they fail.
int64_t packed_to_time(packed_time_t t);                             // -1 on failure
packed_time_t packed_from_time(int64_t seconds);                     // bad_time on failure
const char* time_local_text(int64_t seconds, char (&buffer)[32]);    // "%Y.%m.%d %H:%M:%S" local, else "0000.00.00 00:00:00"
void time_ctime_text(int64_t seconds, std::string& out);             // appends the 24 characters of ctime, else "Bad time"

// The current time as the status stores it: time_text_iso(packed_now()).
std::string now_text();

}  // namespace update
