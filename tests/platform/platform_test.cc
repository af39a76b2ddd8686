// The platform's file calls and the hash library, against real files.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

#include "fixtures/scratch_dir.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"

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

std::string command_output(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    for (size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

// The digits example of GOST R 34.11-2012, in each type and decoration form.
TEST(CalcHash, HashesTheStandardExampleInEveryTypeAndDecoration) {
  fixtures::scratch_dir_t dir;
  const std::string path = dir.write("m1", "012345678901234567890123456789012345678901234567890123456789012");
  const std::string gost256 = "9d151eefd8590b89daa6ba6cb74af9275dd051026bb149a452fd84e5e57b5500";
  const std::string sha256 = "074f6e9ac301d5d1b6df6f1dfb8c6f89c187ea945d352ce6a29279a9c630680b";
  const std::pair<std::string, std::string> rows[] = {
      {"", "#GOST3411_256_2012:" + gost256},
      {"#GOST3411_512_2012:",
       "#GOST3411_512_2012:1b54d01a4af5b9d5cc3d86d68d285462b19abc2475222f35c085122be4ba1ffa00ad30f8767b3a82384c6574f0"
       "24c311e2a481332b08ef7f41797891c1646f48"},
      {"$sha256:0000", "$sha256:" + sha256},  // a stale whole hash names its type, as written
      {"sha256", "#SHA256:" + sha256},
      {"#MD5:", "#GOST3411_256_2012:" + gost256},  // unknown: the default type
  };
  for (const auto& [type, expected] : rows) {
    std::string result;
    ASSERT_TRUE(HashFileChecker::CalcHash(path, type, result)) << type;
    EXPECT_EQ(result, expected) << type;
  }
}

// Sizes around the read block and the algorithms' 64-byte blocks, where a
// streaming fault would show, against an independent implementation.
TEST(CalcHash, AgreesWithRhashOnRandomFiles) {
  if (command_output("command -v rhash").empty()) GTEST_SKIP() << "rhash is not installed";
  fixtures::scratch_dir_t dir;
  const size_t block = size_t{1} << 20;
  std::mt19937 gen(7);
  for (size_t size : {size_t{0}, size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{4097}, block - 1, block,
                      block + 1, 3 * block + 17}) {
    std::string bytes(size, '\0');
    for (auto& c : bytes) c = static_cast<char>(gen());
    const std::string path = dir.write("r", bytes);
    std::string ours256, ours512;
    ASSERT_TRUE(HashFileChecker::CalcHash(path, "#GOST3411_256_2012:", ours256));
    ASSERT_TRUE(HashFileChecker::CalcHash(path, "#GOST3411_512_2012:", ours512));
    EXPECT_EQ(ours256 + " " + ours512,
              command_output("rhash --printf='#GOST3411_256_2012:%{gost12-256} #GOST3411_512_2012:%{gost12-512}' " +
                             path))
        << size;
  }
}

TEST(CalcHash, FailsWithoutTouchingTheResultAndNamesTypesInEveryForm) {
  fixtures::scratch_dir_t dir;
  for (const std::string& file : {dir.path("absent"), dir.path()}) {
    std::string result = "kept";
    EXPECT_FALSE(HashFileChecker::CalcHash(file, "#SHA256:", result) || result != "kept") << file;
  }
  const std::pair<std::string, std::string> rows[] = {
      {"gost3411_512_2012", "#GOST3411_512_2012:"},
      {std::string(128, 'F'), "#GOST3411_512_2012:"},  // a bare digest by its length
      {std::string(63, 'a') + "g", ""},
      {"SHA256 ", ""},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(getHashTypeDecorStr(text), expected) << "'" << text << "'";
}

}  // namespace
}  // namespace update::platform
