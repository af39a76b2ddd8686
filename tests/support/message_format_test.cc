#include "support/message_format.h"

#include <gtest/gtest.h>

namespace update {
namespace {

TEST(MessageFormat, CutsAtTheBufferEnd) {
  std::string long_arg(5000, 'x');
  std::string text = format_message("%sDownload error: %s", "", long_arg.c_str());
  EXPECT_EQ(text.size(), message_buffer_size - 1);
  EXPECT_EQ(text.substr(0, 16), "Download error: ");
  EXPECT_EQ(format_message("%s%llu", "", 18446744073709551615ull), "18446744073709551615");
}

}  // namespace
}  // namespace update
