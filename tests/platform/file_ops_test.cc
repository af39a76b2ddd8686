#include "platform/file_ops.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "fixtures/scratch_dir.h"

namespace update::platform {
namespace {

struct closer_t {
  void operator()(FILE* f) const { std::fclose(f); }
};
using file_t = std::unique_ptr<FILE, closer_t>;
using fixtures::read_file;

class FileOps : public ::testing::Test {
 protected:
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
      if (row.before) dir_.write("m", row.before);
      file_t f(open_file(p.c_str(), row.mode, deny));
      ASSERT_EQ(f != nullptr, row.after != nullptr) << row.mode;
      if (!f) continue;
      if (row.mode[0] != 'r' || row.mode[1] == '+') std::fputs("N", f.get());
      f.reset();
      EXPECT_EQ(read_file(p), row.after) << row.mode << " deny " << deny;
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
  EXPECT_EQ(read_file(p), "partial");
  EXPECT_TRUE(file_t(open_file(p.c_str(), "rb", true)));
  holder.reset();
  EXPECT_TRUE(file_t(open_file(p.c_str(), "wb", true)));
}

TEST_F(FileOps, SizesAreSixtyFourBitAndTruncateKeepsThePosition) {
  const std::string p = dir_.path("sparse");
  file_t f(open_file(p.c_str(), "w+b", false));
  ASSERT_TRUE(f);
  std::fputs("0123456789", f.get());  // still in the stream's buffer
  ASSERT_TRUE(truncate_file(f.get(), 4));
  EXPECT_EQ(read_file(p), "0123");
  EXPECT_EQ(std::ftell(f.get()), 10);
  ASSERT_TRUE(truncate_file(f.get(), (uint64_t{5} << 30) + 3));  // sparse: no disk used
  uint64_t size = 0;
  ASSERT_TRUE(query_file_size(p.c_str(), size));
  EXPECT_EQ(size, (uint64_t{5} << 30) + 3);
}

TEST_F(FileOps, MakesNestedDirectoriesAndReplacesATargetInThem) {
  const std::string target = dir_.path("sub/deeper/f");
  ASSERT_TRUE(make_directories(dir_.path("sub/deeper/").c_str(), 0700));
  dir_.write("sub/deeper/f", "old text");
  ASSERT_TRUE(replace_file(dir_.write("new", "new text").c_str(), target.c_str()));
  EXPECT_EQ(read_file(target), "new text");
}

}  // namespace
}  // namespace update::platform
