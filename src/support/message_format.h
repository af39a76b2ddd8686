// Every message of the module is formatted here, into a buffer of 2048 bytes
// and cut at its end, so that the cut-off rule lives in one place.
#pragma once
#include <cstddef>
#include <string>

namespace update {

constexpr size_t message_buffer_size = 2048;

// printf-style formatting; the result holds at most 2047 bytes.
std::string format_message(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace update
