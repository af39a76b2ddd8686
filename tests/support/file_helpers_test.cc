#include "support/file_helpers.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <filesystem>
#include <memory>

#include "fixtures/scratch_dir.h"
#include "platform/file_ops.h"

namespace update {
namespace {

using file_t = std::unique_ptr<FILE, file_closer_t>;

class FileHelpers : public ::testing::Test {
 protected:
  void TearDown() override {
    auto& faults = platform::file_faults();
    faults.fail_replace = faults.fail_open_write = faults.fail_sync = false;
  }
  static std::string read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  fixtures::scratch_dir_t dir_;
};

TEST_F(FileHelpers, MissingThingsAreZeroFalseOrNothing) {
  EXPECT_EQ(file_size(dir_.path("missing")), 0u);
  EXPECT_FALSE(file_exists(dir_.path("missing")));
  EXPECT_FALSE(file_exists(dir_.path()));  // a directory cannot be opened for reading
  EXPECT_FALSE(move_file(dir_.path("missing"), dir_.write("b", "kept")));
  EXPECT_EQ(read(dir_.path("b")), "kept");

  const std::string agent = dir_.write("agent.bin", "final");
  dir_.write("agent.bin.download.5.1", "partial");
  dir_.write("agent.bin.download.5.0", "other version");
  remove_download(agent, "5.1");
  EXPECT_FALSE(std::filesystem::exists(agent));
  EXPECT_FALSE(std::filesystem::exists(dir_.path("agent.bin.download.5.1")));
  EXPECT_TRUE(std::filesystem::exists(dir_.path("agent.bin.download.5.0")));
  remove_download(agent, "5.1");
}

TEST_F(FileHelpers, FopenReadsTheModeUpToItsGivenLength) {
  const std::string p = dir_.path("f");
  EXPECT_EQ(fopen_utf8(nullptr, "rb", 3), nullptr);
  EXPECT_EQ(fopen_utf8(p.c_str(), nullptr, 3), nullptr);
  std::fputs("abc", file_t(fopen_utf8(p.c_str(), "wb", 3)).get());
  {
    file_t f(fopen_utf8(p.c_str(), "ab", 3));
    ASSERT_TRUE(f);
    std::fputs("def", f.get());
    // A download holds the file: other writers are out, readers are not.
    EXPECT_EQ(fopen_utf8(p.c_str(), "ab", 3), nullptr);
    EXPECT_TRUE(file_exists(p));
  }
  EXPECT_EQ(read(p), "abcdef");
  file_t f(fopen_utf8(p.c_str(), "a+b", 1));  // cut to "a": cannot read
  ASSERT_TRUE(f);
  EXPECT_EQ(std::fgetc(f.get()), EOF);
}

TEST_F(FileHelpers, StreamsTakeUtf8PathsAndFailQuietly) {
  const std::string p = dir_.path("\xd0\xbe\xd0\xb1\xd0\xbd\xd0\xbe\xd0\xb2\xd0\xbb\xd0\xb5\xd0\xbd\xd0\xb8\xd0\xb5.ini");
  std::utf8_ofstream(p) << "[s]\nk=v\n";
  std::utf8_ifstream in(p);
  std::string line;
  ASSERT_TRUE(std::getline(in, line));
  EXPECT_EQ(line, "[s]");
  EXPECT_EQ(file_size(p), 8u);

  EXPECT_TRUE(std::utf8_ifstream(dir_.path("missing")).fail());
  EXPECT_TRUE(std::utf8_ofstream(dir_.path("missing/x")).fail());
  platform::file_faults().fail_open_write = true;
  EXPECT_TRUE(std::utf8_ofstream(dir_.path("y")).fail());
  EXPECT_FALSE(std::filesystem::exists(dir_.path("y")));
}

TEST_F(FileHelpers, HexTextAppendsUpperCasePairs) {
  const unsigned char bytes[] = {0xAB, 0x01, 0x0f};
  const struct {
    size_t count;
    char separator;
    const char* expected;
  } rows[] = {{2, ':', "pre AB:01"}, {2, 0, "pre AB01"}, {3, ' ', "pre AB 01 0F"}, {1, ':', "pre AB"}, {0, ':', "pre "}};
  for (const auto& row : rows) {
    std::string text = "pre ";
    hex_text(bytes, row.count, text, row.separator);
    EXPECT_EQ(text, row.expected);
  }
}

TEST_F(FileHelpers, DurableWriteReplacesOnlyWithAWholeFile) {
  const std::string p = dir_.path("status.xml");
  EXPECT_EQ(write_file_durably(p, {"first ", "", "text"}), durable_write_t::done);
  EXPECT_EQ(read(p), "first text");
  EXPECT_FALSE(std::filesystem::exists(p + ".bak"));

  platform::file_faults().fail_sync = true;  // the disk is full
  EXPECT_EQ(write_file_durably(p, {"lost"}), durable_write_t::not_written);
  EXPECT_EQ(read(p), "first text");
  platform::file_faults().fail_sync = false;

  platform::file_faults().fail_replace = true;
  EXPECT_EQ(write_file_durably(p, {"second"}), durable_write_t::not_replaced);
  EXPECT_EQ(read(p), "first text");
  EXPECT_EQ(read(p + ".bak"), "second");
  platform::file_faults().fail_replace = false;

  // A longer companion left behind is truncated by the next write.
  dir_.write("status.xml.bak", "a much longer leftover companion");
  EXPECT_EQ(write_file_durably(p, {"third"}), durable_write_t::done);
  EXPECT_EQ(read(p), "third");
  EXPECT_EQ(write_file_durably(dir_.path("missing/s.xml"), {"x"}), durable_write_t::not_opened);
}

}  // namespace
}  // namespace update
