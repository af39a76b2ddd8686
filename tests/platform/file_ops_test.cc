#include "platform/file_ops.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include <filesystem>
#include <fstream>
#include <memory>

#include "fixtures/scratch_dir.h"

namespace update::platform {
namespace {

struct closer_t {
  void operator()(FILE* f) const {
    if (f) std::fclose(f);
  }
};
using file_t = std::unique_ptr<FILE, closer_t>;

class FileOps : public ::testing::Test {
 protected:
  void TearDown() override { file_faults().fail_replace = file_faults().fail_truncate = false; }
  std::string put(const std::string& name, const std::string& bytes) { return dir_.write(name, bytes); }
  static std::string read(const std::string& p) {
    std::ifstream in(p, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  fixtures::scratch_dir_t dir_;
};

TEST_F(FileOps, ModesOpenCreateTruncateAndAppendAsFopenDoes) {
  const struct {
    const char* mode;
    const char* before;  // null: no file
    const char* after;   // null: the open fails
  } rows[] = {
      {"rb", nullptr, nullptr}, {"rb", "old", "old"},   {"wb", "old", "N"},    {"wb", nullptr, "N"},
      {"ab", "old", "oldN"},    {"a+", nullptr, "N"},   {"r+b", "old", "Nld"}, {"r+b", nullptr, nullptr},
      {"w+t", "old", "N"},      {"", "old", nullptr},   {"zb", "old", nullptr},
  };
  for (const auto& row : rows) {
    for (bool deny : {false, true}) {
      const std::string p = dir_.path("m");
      std::filesystem::remove(p);
      if (row.before) put("m", row.before);
      file_t f(open_file(p.c_str(), row.mode, deny));
      ASSERT_EQ(f != nullptr, row.after != nullptr) << row.mode;
      if (!f) continue;
      if (row.mode[0] != 'r' || row.mode[1] == '+') std::fputs("N", f.get());
      f.reset();
      EXPECT_EQ(read(p), row.after) << row.mode << " deny " << deny;
    }
  }
  EXPECT_EQ(open_file(dir_.path().c_str(), "rb", false), nullptr);  // directories do not open
}

TEST_F(FileOps, WriterWithDenyWriteKeepsOtherWritersOutButNotReaders) {
  const std::string p = dir_.path("download");
  file_t holder(open_file(p.c_str(), "ab", true));
  ASSERT_TRUE(holder);
  std::fputs("partial", holder.get());
  std::fflush(holder.get());
  // A second writer is refused at once, and its "w" does not truncate.
  EXPECT_EQ(open_file(p.c_str(), "wb", true), nullptr);
  EXPECT_EQ(open_file(p.c_str(), "r+b", true), nullptr);
  EXPECT_EQ(read(p), "partial");
  EXPECT_TRUE(file_t(open_file(p.c_str(), "rb", true)));
  holder.reset();
  EXPECT_TRUE(file_t(open_file(p.c_str(), "wb", true)));
  EXPECT_EQ(read(p), "");
}

TEST_F(FileOps, SizesAreSixtyFourBitAndTruncateKeepsThePosition) {
  const std::string p = dir_.path("sparse");
  uint64_t size = 1;
  EXPECT_FALSE(query_file_size(p.c_str(), size));
  file_t f(open_file(p.c_str(), "w+b", false));
  ASSERT_TRUE(f);
  std::fputs("0123456789", f.get());  // still in the stream's buffer
  ASSERT_TRUE(truncate_file(f.get(), 4));
  EXPECT_EQ(read(p), "0123");
  EXPECT_EQ(std::ftell(f.get()), 10);
  ASSERT_TRUE(truncate_file(f.get(), (uint64_t{5} << 30) + 3));  // sparse: no disk used
  ASSERT_TRUE(query_file_size(p.c_str(), size));
  EXPECT_EQ(size, (uint64_t{5} << 30) + 3);
  file_faults().fail_truncate = true;
  EXPECT_FALSE(truncate_file(f.get(), 1));
  ASSERT_TRUE(query_file_size(dir_.path().c_str(), size));
  EXPECT_EQ(size, 0u);
}

TEST_F(FileOps, ReplaceSwapsTheTargetWhole) {
  const std::string source = put("new", "new text"), target = put("status", "old text");
  ASSERT_TRUE(replace_file(source.c_str(), target.c_str()));
  EXPECT_EQ(read(target), "new text");
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_FALSE(replace_file(source.c_str(), target.c_str()));  // no source
  EXPECT_EQ(read(target), "new text");

  ASSERT_TRUE(make_directories(dir_.path("sub/deeper/").c_str(), 0700));
  put("new", "moved");
  ASSERT_TRUE(replace_file(source.c_str(), dir_.path("sub/deeper/f").c_str()));
  EXPECT_EQ(read(dir_.path("sub/deeper/f")), "moved");

  put("new", "refused");
  file_faults().fail_replace = true;
  EXPECT_FALSE(replace_file(source.c_str(), target.c_str()));
  EXPECT_EQ(read(target), "new text");
  EXPECT_EQ(read(source), "refused");
}

}  // namespace
}  // namespace update::platform
