// Placeholder until time text lands.
#include "support/time_text.h"

namespace update {
packed_time_t packed_now() { return bad_time; }
packed_time_t parse_time(const std::string&) { return bad_time; }
void time_text_iso(packed_time_t, std::string& out) { out = "0000-00-00T00:00:00"; }
void time_text_gmt(packed_time_t, std::string& out) { out = "0000.00.00 00:00:00"; }
void time_text_dmy_gmt(packed_time_t, std::string& out) { out += "Error time"; }
void time_text_local(packed_time_t, std::string& out) { out += "Error time"; }
int64_t packed_to_time(packed_time_t) { return -1; }
const char* time_local_text(int64_t, char (&buffer)[32]) { buffer[0] = 0; return buffer; }
void time_ctime_text(int64_t, std::string& out) { out += "Bad time"; }
std::string now_text() { std::string s; time_text_iso(packed_now(), s); return s; }
}  // namespace update
