#include "support/file_helpers.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "fixtures/scratch_dir.h"
#include "platform/file_ops.h"

namespace update {
namespace {

using file_t = std::unique_ptr<FILE, file_closer_t>;
using fixtures::read_file;

class FileHelpers : public ::testing::Test {
 protected:
  fixtures::scratch_dir_t dir_;
};

TEST_F(FileHelpers, MovesReplaceAndMissingThingsAreZeroFalseOrNothing) {
  EXPECT_EQ(file_size(dir_.path("missing")), 0u);
  EXPECT_FALSE(file_exists(dir_.path()));  // a directory cannot be opened for reading
  const std::string target = dir_.write("b", "kept");
  EXPECT_FALSE(move_file(dir_.path("missing"), target));
  EXPECT_TRUE(move_file(dir_.write("a", "moved"), target));
  EXPECT_EQ(read_file(target), "moved");
  EXPECT_FALSE(file_exists(dir_.path("a")));

  const std::string agent = dir_.write("agent.bin", "final");
  dir_.write("agent.bin.download.5.1", "partial");
  dir_.write("agent.bin.download.5.0", "other version");
  remove_download(agent, "5.1");
  EXPECT_FALSE(std::filesystem::exists(agent));
  EXPECT_FALSE(std::filesystem::exists(dir_.path("agent.bin.download.5.1")));
  EXPECT_TRUE(std::filesystem::exists(dir_.path("agent.bin.download.5.0")));
  remove_download(agent, "5.1");  // nothing left: no harm
}

TEST_F(FileHelpers, FopenReadsTheModeUpToItsGivenLengthAndKeepsOtherWritersOut) {
  const std::string p = dir_.write("f", "abc");
  EXPECT_EQ(fopen_utf8(nullptr, "rb", 3), nullptr);
  file_t f(fopen_utf8(p.c_str(), "a+b", 1));  // cut to "a": cannot read
  ASSERT_TRUE(f);
  EXPECT_EQ(std::fgetc(f.get()), EOF);
  EXPECT_EQ(fopen_utf8(p.c_str(), "ab", 3), nullptr);
  EXPECT_TRUE(file_exists(p));
}

TEST_F(FileHelpers, HexTextAppendsUpperCasePairs) {
  const unsigned char bytes[] = {0xAB, 0x01, 0x0f};
  const struct {
    size_t count;
    char separator;
    const char* expected;
  } rows[] = {{2, 0, "pre AB01"}, {3, ' ', "pre AB 01 0F"}, {1, ':', "pre AB"}, {0, ':', "pre "}};
  for (const auto& row : rows) {
    std::string text = "pre ";
    hex_text(bytes, row.count, text, row.separator);
    EXPECT_EQ(text, row.expected);
  }
}

TEST_F(FileHelpers, DurableWriteReplacesOnlyWithAWholeFile) {
  const std::string p = dir_.path("status.xml");
  EXPECT_EQ(write_file_atomically(p, {"first ", "", "text"}), atomic_write_t::done);
  EXPECT_EQ(read_file(p), "first text");
  EXPECT_FALSE(std::filesystem::exists(p + ".bak"));
  platform::file_faults().fail_sync = true;  // the disk is full
  EXPECT_EQ(write_file_atomically(p, {"a longer lost text"}), atomic_write_t::not_written);
  EXPECT_EQ(read_file(p), "first text");
  platform::file_faults().fail_sync = false;
  // The longer companion left behind is cut by the next write.
  EXPECT_EQ(write_file_atomically(p, {"third"}), atomic_write_t::done);
  EXPECT_EQ(read_file(p), "third");
  EXPECT_EQ(write_file_atomically(dir_.path("missing/s.xml"), {"x"}), atomic_write_t::not_opened);
}

}  // namespace
}  // namespace update
