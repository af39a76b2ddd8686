#include "support/message_format.h"

#include <cstdarg>
#include <cstdio>

namespace update {

std::string format_message(const char* format, ...) {
  char buffer[message_buffer_size];
  va_list args;
  va_start(args, format);
  int n = vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  if (n < 0) return std::string();
  // vsnprintf has already cut the text and terminated it.
  return std::string(buffer, static_cast<size_t>(n) < sizeof buffer ? static_cast<size_t>(n) : sizeof buffer - 1);
}

}  // namespace update
