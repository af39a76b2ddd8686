// Patches as the maker writes them, and as a hostile server could shape them:
// the applier makes the result or says why, and never reads outside the base
// nor writes past the result.
#include <gtest/gtest.h>
#include <lzma.h>

#include <random>

#include "fixtures/nginx_server.h"
#include "sign/patch_make.h"
#include "support/patch_apply.h"

namespace update {
namespace {

const unsigned char* bytes_of(const std::string& s) { return reinterpret_cast<const unsigned char*>(s.data()); }

// "" and the result, or the applier's reason; a sink that takes at most `room` bytes.
std::pair<std::string, std::string> apply(const std::string& base, const std::string& patch, uint64_t size,
                                          size_t room = SIZE_MAX) {
  std::string result;
  const std::string error = apply_patch(bytes_of(base), base.size(), bytes_of(patch), patch.size(), size,
                                        [&](const unsigned char* b, size_t n) {
                                          if (result.size() + n > room) return false;
                                          result.append(reinterpret_cast<const char*>(b), n);
                                          return true;
                                        });
  EXPECT_LE(result.size(), size);
  return {error, result};
}

std::string xz(const std::string& data) {
  std::string out(lzma_stream_buffer_bound(data.size()), '\0');
  size_t used = 0;
  lzma_easy_buffer_encode(0, LZMA_CHECK_NONE, nullptr, bytes_of(data), data.size(),
                          reinterpret_cast<uint8_t*>(out.data()), &used, out.size());
  return out.substr(0, used);
}

// The stream with its block's header asking for a dictionary of 1 GiB.
std::string huge_dictionary(std::string stream) {
  const size_t size = (static_cast<unsigned char>(stream[12]) + 1) * 4, lzma2 = stream.find("\x21\x01", 14);
  stream[lzma2 + 2] = 36;
  const uint32_t crc = lzma_crc32(bytes_of(stream) + 12, size - 4, 0);
  for (size_t i = 0; i < 4; ++i) stream[12 + size - 4 + i] = static_cast<char>(crc >> (8 * i));
  return stream;
}

// A patch of the given streams, each compressed unless given as it stands.
std::string shaped(uint64_t base, uint64_t result, const std::string& control, const std::string& diff,
                   const std::string& extra, bool raw_control = false) {
  const std::string c = raw_control ? control : xz(control), d = xz(diff), e = xz(extra);
  return write_patch_header({base, result, c.size(), d.size(), e.size()}) + c + d + e;
}

TEST(Patch, MakerAndApplierAgreeOnEveryShapeOfChange) {
  std::mt19937 random(11);
  std::string file(20000, '\0');
  for (auto& c : file) c = static_cast<char>(random() % 7);
  std::string moved = file.substr(12000) + file.substr(0, 12000), shifted = file;
  std::string edited = std::string(file).replace(300, 5, "EDITS").insert(9000, 700, 'z').erase(15000, 2000);
  for (size_t i = 0; i < shifted.size(); i += 97) ++shifted[i];  // as moved code changes its addresses
  // most: bytes the patch may take
  const struct { std::string base, result; size_t most; } rows[] = {
      {"", "", 250},          {"", "new", 250},      {file, "", 250},       {file, file, 250},
      {file, edited, 1000}, {file, moved, 300},   {edited, file, 1400}, {file, shifted, 350},
      // What follows the base's last byte in memory must not count as a match.
      {file, file + std::string(8, '\0'), 300}};
  for (const auto& row : rows) {
    std::string patch, error;
    // The base's bytes alone on the heap: the sanitized build sees a read past them.
    const std::vector<unsigned char> base(row.base.begin(), row.base.end());
    ASSERT_TRUE(make_patch(base.empty() ? bytes_of(row.base) : base.data(), base.size(), bytes_of(row.result),
                           row.result.size(), patch, error)) << error;
    const auto [applied_error, applied] = apply(row.base, patch, row.result.size());
    EXPECT_EQ(applied_error, "");
    EXPECT_TRUE(applied == row.result) << row.base.size() << " -> " << row.result.size();
    EXPECT_LE(patch.size(), row.most) << row.base.size() << " -> " << row.result.size();
  }
}

TEST(Patch, HostilePatchIsRefusedWithItsReason) {
  const std::string base = "0123456789", zeros(3, '\0'), good = shaped(10, 6, "\x04\x03\x03", zeros, "xyz");
  ASSERT_EQ(apply(base, good, 6), (std::pair<std::string, std::string>{"", "234xyz"}));
  std::string long_number(10, '\xFF');
  const std::pair<std::string, std::string> rows[] = {
      {"XRVPAT01" + good.substr(8), "not a patch"}, {good.substr(0, 40), "not a patch"},
      {good.substr(0, good.size() - 1), "stream lengths run past the patch's"},
      {good + "!", "1 bytes behind the streams"},
      {shaped(11, 6, std::string("\x04\x03\x03", 3), zeros, "xyz"), "made for a base of 11 bytes, the file has 10"},
      {shaped(10, 7, std::string("\x04\x03\x03", 3), zeros, "xyz"), "makes 7 bytes, not 6"},
      {shaped(10, 6, std::string("\x16\x00\x06", 3), "", "abcdef"), "a seek leaves the base"},  // to 11
      {shaped(10, 6, std::string("\x01\x00\x06", 3), "", "abcdef"), "a seek leaves the base"},  // to -1
      {shaped(10, 6, std::string("\x10\x03\x03", 3), zeros, "xyz"), "a copy leaves the base"},  // 8 + 3
      {shaped(10, 6, std::string("\x00\x00\x00", 3), "", "abcdef"), "a record that makes nothing"},
      {shaped(10, 6, std::string("\x00\x03\x04", 3), zeros, "wxyz"), "a record runs past the result"},
      {shaped(10, 6, std::string("\x00\x03\x03", 3), zeros.substr(1), "xyz"),
       "diff stream: ends before the result is whole"},
      {shaped(10, 6, std::string("\x00\x03\x03", 3), zeros, "xyza"), "extra stream: data after the result's end"},
      {shaped(10, 6, std::string("\x00\x06\x00\x00", 4), std::string(6, '\0'), ""), "control stream: data after the"},
      {shaped(10, 6, long_number + '\x01', "", ""), "control stream: a number beyond 64 bits"},
      {shaped(10, 6, "not xz", "", "", true), "control stream: damaged"},
      {shaped(10, 6, xz("\x08") + "x", "", "", true), "control stream: data behind its end"},
      {shaped(10, 6, huge_dictionary(xz("\x04\x03\x03")), zeros, "xyz", true), "control stream: asks for too much"},
  };
  for (const auto& [patch, reason] : rows) EXPECT_EQ(apply(base, patch, 6).first.rfind(reason, 0), 0u) << reason;
  EXPECT_EQ(apply(base, good, 6, 3).first, "the result could not be written");
}

// The format as the README gives it, written again in Python with its own xz: it applies what our maker
// makes, and what it makes (seeks both ways, another xz writer, another check) our applier applies.
TEST(Patch, AnIndependentWriterAndReaderOfTheFormatAgreeWithOurs) {
  fixtures::scratch_dir_t dir;
  std::string base(300000, '\0');
  for (std::mt19937 random(3); auto& c : base) c = static_cast<char>(random() % 31);
  const std::string result = std::string(base).replace(5000, 9, "different").insert(200000, 3000, 'q').erase(900, 77);
  std::string ours, error;
  ASSERT_TRUE(make_patch(bytes_of(base), base.size(), bytes_of(result), result.size(), ours, error)) << error;
  dir.write("base", base), dir.write("ours.patch", ours), dir.write("new", result), dir.write("empty", "");
  // An empty previous version maps as no bytes; a patch from it is made all the same.
  EXPECT_TRUE(make_patch_file(dir.path("empty"), dir.path("new"), dir.path("from-empty.patch"), error)) << error;
  const auto python = [&](const char* what, const char* second, const char* out) {
    return fixtures::run_program({"/usr/bin/python3", CORVID_SOURCE_DIR "/tests/fixtures/crvpat.py", what,
                                  dir.path("base"), dir.path(second), dir.path(out)}, dir);
  };
  EXPECT_EQ(python("apply", "ours.patch", "applied").exit_code, 0);
  EXPECT_TRUE(fixtures::read_file(dir.path("applied")) == result);
  ASSERT_EQ(python("make", "new", "theirs.patch").exit_code, 0);
  const std::string theirs = fixtures::read_file(dir.path("theirs.patch"));
  const auto [applied_error, applied] = apply(base, theirs, result.size());
  EXPECT_EQ(applied_error, "");
  EXPECT_TRUE(applied == result);
  // A changed byte in a stream fails on both sides.
  dir.write("ours.patch", std::string(ours).replace(ours.size() - 40, 1, 1, ours[ours.size() - 40] ^ 1));
  EXPECT_NE(python("apply", "ours.patch", "applied").exit_code, 0);
  EXPECT_NE(apply(base, std::string(theirs).replace(theirs.size() - 40, 1, 1, theirs[theirs.size() - 40] ^ 1),
                  result.size()).first, "");
}

}  // namespace
}  // namespace update
