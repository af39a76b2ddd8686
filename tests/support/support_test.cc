// The support helpers and the platform's calls: the ini engine (only the
// lookups the loaders use), time text, message formatting, durable writes,
// the file calls and the hash library, against real files.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <tuple>

#include <gcrypt.h>

#include "fixtures/nginx_server.h"
#include "support/sources_file.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "support/byte_layout.h"
#include "support/file_helpers.h"
#include "support/ini_file.h"
#include "support/message_format.h"
#include "support/time_text.h"

namespace update {
namespace {

using fixtures::read_file;

struct parsed_t {
  explicit parsed_t(const std::string& text) : in(text), ini(in) {}
  CIniFile::group_t& group(const std::string& name) {
    CIniFile::group_list_t found;
    ini.groups_named(name, found);
    return *found.at(0);
  }
  std::istringstream in;
  CIniFile ini;
};

// What a call raises, by kind: "group X", "key K in G", "format ...", "other ...".
std::string raised_by(const std::function<void()>& call) {
  try {
    call();
  } catch (const CIniFileGroupNotFound& e) {
    return std::string("group ") + e.what();
  } catch (const CIniFileVarNameNotFound& e) {
    return std::string("key ") + e.what() + " in " + e.group;
  } catch (const CIniFileFormatError& e) {
    return std::string("format ") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("other ") + e.what();
  }
  return "";
}

TEST(IniFile, BadLinesAreReportedWithTheirLineNumber) {
  const std::pair<std::string, std::string> rows[] = {
      {"\n\nbad\n", "format Bad syntax at line 3"},  // blank lines count
      {"\r\n\r\nbad\r\n", "format Bad syntax at line 3"},
      {"[a]\n; c\n! c\n# c\nk=v\n\tbad line\n", "format Bad syntax at line 6"},
      {" \t= value", "format Bad syntax at line 1"}, {"[x", "format Bad syntax at line 1"},
      {"\xEF\xBB\xBF[a]\nk=v\n", "format Bad syntax at line 1"},  // a byte order mark is not removed
      {"[a=b]", ""},
      {"[", "format Bad syntax at line 1"},   // a header needs both brackets
      {"k=v\n=", "format Bad syntax at line 2"},  // and a parameter its name
      {"[]\n \t\r\n#\nk=", ""},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(raised_by([&] { parsed_t{text}; }), expected) << text;
}

TEST(SourcesFile, TakesOneUriALineAndNamesTheFirstBadOne) {
  const std::tuple<std::string, std::string, std::string> rows[] = {  // text, sources read, reason
      {"# ours\n\n  http://a/x \t\r\nhttps://b/\n\t# indented\nFILE:///srv/r/", "http://a/x https://b/ FILE:///srv/r/ ", ""},
      {"http://a/\nftp://b/\nhttp://c/\n", "http://a/ ", "line 2: not an http, https or file URI: ftp://b/"},
      {"https://\n", "", "line 1: not an http, https or file URI: https://"},
      {"http://a/ # ours\n", "", "line 1: a blank or control character in the URI: http://a/ # ours"},
      {"file:///a\x01/\n", "", "line 1: a blank or control character in the URI: file:///a\\x01/"},
  };
  for (const auto& [text, sources, reason] : rows) {
    std::list<std::string> read;
    std::string why, joined;
    EXPECT_EQ(update::read_sources(text, read, why), reason.empty()) << text;
    for (const auto& uri : read) joined += uri + " ";
    EXPECT_EQ(joined, sources) << text;
    EXPECT_EQ(why, reason) << text;
  }
}

TEST(IniFile, KeysValuesAndHeadersAreCutAsWritten) {
  parsed_t p("\xEF\xBB\xBFk=bom\n key = value \nspaced\t=\t  v  w\r\na=b ; c\nk2=v=w\n[x=1\nempty=\n"
             "[ name ]\n[a=b]\n[#x]\nlast=no newline");
  ASSERT_EQ(p.ini.groups.size(), 4u);
  const std::map<std::string, std::list<std::string>> expected{
      {"\xEF\xBB\xBFk", {"bom"}}, {"key", {"value"}}, {"spaced", {"v  w"}}, {"a", {"b ; c"}},
      {"k2", {"v=w"}},            {"[x", {"1"}},      {"empty", {""}}};
  EXPECT_EQ(p.ini.groups.front().params, expected);
  std::string names;
  for (const auto& g : p.ini.groups) names += "[" + g.name + "]";
  EXPECT_EQ(names, "[][name][a=b][]");  // a header wins over its "="; "#" empties a name
  EXPECT_EQ(p.ini.groups.back().value_of("last", nullptr), "no newline");
}

TEST(IniFile, RepeatedGroupsAndKeysDifferByLookup) {
  parsed_t p("k=headless\n[a]\nk=1\nonly_first=f\n[b]\nk=b\n[a]\nk=2\nk=3\n[ab]\nk=ab\n");
  CIniFile::group_list_t named, none, prefixed;
  p.ini.groups_named("a", named);
  p.ini.groups_with_prefix("a", prefixed);
  EXPECT_EQ(p.group("").value_of("k", nullptr), "headless");
  EXPECT_EQ(value_in_groups(named, "a", "k", nullptr), "3");  // later group, later value
  EXPECT_EQ(value_in_groups(named, "a", "only_first", nullptr), "f");
  ASSERT_EQ(prefixed.size(), 3u);
  EXPECT_EQ(prefixed[1], named[1]);
  EXPECT_EQ(prefixed[2]->name, "ab");
  // Missing groups and keys raise only without a default.
  EXPECT_EQ(value_in_groups(none, "zz", "k", "d1") + value_in_groups(named, "a", "zz", "d2"), "d1d2");
  EXPECT_EQ(raised_by([&] { value_in_groups(none, "zz", "k", nullptr); }), "group zz");
}

TEST(IniFile, TakingEmptiesTheStoreAndPrefixesWalkKeysInByteOrder) {
  parsed_t p("[s]\nk=1\nk=2\none=x\nglobal.b=2\nglobal.a=1\nglobal.a=1b\nglobalx=no\nglobal.\xe9=3\nglobal.B=0\n");
  auto& group = p.group("s");
  std::list<std::pair<std::string, std::string>> found;
  group.params_with_prefix("global.", found);
  const std::list<std::pair<std::string, std::string>> expected{
      {"global.B", "0"}, {"global.a", "1"}, {"global.a", "1b"}, {"global.b", "2"}, {"global.\xe9", "3"}};
  EXPECT_EQ(found, expected);
  // Deliberately not one of the engine's own exceptions.
  EXPECT_EQ(raised_by([&] { group.take_value("k", ""); }), "other duplicate parameter : 'k', in section: s");
  EXPECT_EQ(group.value_of("k", nullptr), "2");  // a refused take leaves the key
  std::list<std::string> values{"earlier"};
  group.take_values("k", values);
  group.take_values("k", values);
  EXPECT_EQ(values, (std::list<std::string>{"earlier", "1", "2"}));
  EXPECT_EQ(group.take_value("one", nullptr), "x");
  EXPECT_EQ(raised_by([&] { group.take_value("one", nullptr); }), "key one in s");
}

// The status keeps its times in the one form below; the other forms of the
// time library are read in a zone three hours east of UTC, so that a local
// text shows where it came from.
TEST(TimeText, IsoTextOfAPackedTimeOrItsPlaceholderAndNow) {
  const std::pair<packed_time_t, const char*> rows[] = {
      {0x7E80205070809, "2024-03-05T07:08:09"},  // by weight: year, month from 0, day, hours, minutes, seconds
      {packed_time_t{1900} << 40 | 0x0001000000, "1900-01-01T00:00:00"},  // the first year
      {bad_time, "0000-00-00T00:00:00"}, {packed_time_t{1899} << 40 | 0x0001000000, "0000-00-00T00:00:00"},
  };
  for (const auto& [time, text] : rows) {
    std::string out = "stale";
    time_text_iso(time, out);
    EXPECT_EQ(out, text);
  }
  auto clock_text = [] {
    const time_t now = std::time(nullptr);
    std::tm tm{};
    char text[32];
    return std::string(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", gmtime_r(&now, &tm)));
  };
  const std::string before = clock_text(), now = now_text(), after = clock_text();
  EXPECT_TRUE(now == before || now == after) << now << " between " << before << " and " << after;

  setenv("TZ", "XYZ-3", 1);
  tzset();
  const std::string bad = "0000-00-00T00:00:00|0000.00.00 00:00:00|Error time|Error time|-1";
  const std::pair<const char*, std::string> scanned[] = {  // parse_time's text: ISO, GMT, GMT by day, local, seconds
      {"2024.03.05 07:08:09", "2024-03-05T07:08:09|2024.03.05 07:08:09 GMT|05.03.2024 07:08:09 GMT|05.03.2024 10:08:09|"
                              "1709622489"},
      {" +2024.3.5\n7:8:9 and more", "2024-03-05T07:08:09|2024.03.05 07:08:09 GMT|05.03.2024 07:08:09 GMT|"
                                     "05.03.2024 10:08:09|1709622489"},
      {"1900.1.1 0:0:0", "1900-01-01T00:00:00|1900.01.01 00:00:00 GMT|01.01.1900 00:00:00 GMT|"
                         "01.01.1900 00:00:00 GMT|-1"},  // before 1970: no seconds count
      {"3000.12.31 23:59:59", "3000-12-31T23:59:59|3000.12.31 23:59:59 GMT|31.12.3000 23:59:59 GMT|"
                              "01.01.3001 02:59:59|32535215999"},
      {"3001.1.1 0:0:0", "3001-01-01T00:00:00|3001.01.01 00:00:00 GMT|01.01.3001 00:00:00 GMT|"
                         "01.01.3001 00:00:00 GMT|-1"},
      {"2024.13.5 99:0:0", "2024-13-05T99:00:00|2024.13.05 99:00:00 GMT|05.13.2024 99:00:00 GMT|"
                           "09.01.2025 06:00:00|1736391600"},  // packed as it stands, counted on
      {"2024.00.05 07:08:09", bad}, {"2024.03.05", bad}, {"1899.12.31 0:0:0", bad}, {"2024.03.05 07:08", bad},
  };
  for (const auto& [text, expected] : scanned) {
    const packed_time_t t = parse_time(text);
    std::string iso, gmt, dmy, local;
    time_text_iso(t, iso), time_text_gmt(t, gmt), time_text_dmy_gmt(t, dmy), time_text_local(t, local);
    EXPECT_EQ(iso + "|" + gmt + "|" + dmy + "|" + local + "|" + std::to_string(packed_to_time(t)), expected) << text;
  }
  const std::pair<int64_t, std::string> counted[] = {  // seconds: packed back as ISO, local, ctime
      {0, "1970-01-01T00:00:00|1970.01.01 03:00:00|Thu Jan  1 03:00:00 1970"},
      {32535215999, "3000-12-31T23:59:59|3001.01.01 02:59:59|Thu Jan  1 02:59:59 3001"},
      {32535216000, "0000-00-00T00:00:00|0000.00.00 00:00:00|Bad time"},
      {-1, "0000-00-00T00:00:00|0000.00.00 00:00:00|Bad time"},
  };
  for (const auto& [seconds, expected] : counted) {
    std::string iso, ctime;
    char buffer[32];
    time_text_iso(packed_from_time(seconds), iso);
    time_ctime_text(seconds, ctime);
    EXPECT_EQ(iso + "|" + time_local_text(seconds, buffer) + "|" + ctime, expected) << seconds;
  }
}

TEST(MessageFormat, CutsAtTheBufferEnd) {
  for (const size_t size : {message_buffer_size - 2, message_buffer_size - 1, message_buffer_size, size_t{5000}}) {
    const std::string text = std::string(size - 1, 'x') + "y";
    EXPECT_EQ(format_message("%s", text.c_str()), text.substr(0, message_buffer_size - 1)) << size;
  }
}

TEST(FileHelpers, DurableWriteReplacesOnlyWithAWholeFile) {
  fixtures::scratch_dir_t dir;
  const std::string p = dir.path("status.xml");
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
  // Files around the read buffer's 64 KiB come back whole.
  for (const size_t size : {size_t{65535}, size_t{65536}, size_t{65537}, size_t{3} << 16}) {
    std::string text(size - 1, 'a'), back = "stale";
    text += 'z';
    EXPECT_TRUE(write_file_atomically(p, {text}) == atomic_write_t::done && read_whole_file(p, back) && back == text)
        << size;
  }
}

TEST(FileHelpers, HexTextPutsTheSeparatorOnlyBetweenBytes) {
  const unsigned char bytes[] = {0xAB, 0x01, 0x0F};
  const std::tuple<size_t, char, const char*> rows[] = {
      {3, ':', "=AB:01:0F"}, {3, 0, "=AB010F"}, {1, ':', "=AB"}, {0, ':', "="}};
  for (const auto& [count, separator, expected] : rows) {
    std::string text = "=";
    hex_text(bytes, count, text, separator);
    EXPECT_EQ(text, expected) << count;
  }
}

// A counted text is read only when all of it is there; a refused read moves
// nothing, and a length near 2^32 does not wrap the position.
TEST(ByteReader, ReadsCountedTextsNoFurtherThanTheEnd) {
  const auto counted = [](const std::string& text) { std::string bytes; append_counted(bytes, text); return bytes; };
  const std::pair<std::string, std::string> rows[] = {  // the bytes; texts read, then a "+" per byte left
      {"", ""}, {"abc", "+++"}, {counted(""), "[]"}, {counted("abc"), "[abc]"}, {counted("abc").substr(0, 6), "++++++"},
      {counted("abc") + "x", "[abc]+"}, {counted("a") + counted("bc"), "[a][bc]"}, {std::string(4, '\xff') + "ab", "++++++"}};
  for (const auto& [bytes, expected] : rows) {
    byte_reader_t reader(bytes);
    std::string read, text;
    while (reader.counted(text)) read += "[" + text + "]";
    for (uint8_t byte; reader.number(byte);) read += "+";
    EXPECT_EQ(read, expected);
  }
}

}  // namespace

namespace platform {
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
  EXPECT_EQ(fopen_utf8(p.c_str(), "wb", sizeof "wb"), nullptr);  // the module's own opens ask alike
  EXPECT_EQ(read_file(p), "partial");
  EXPECT_TRUE(file_t(open_file(p.c_str(), "rb", true)));
  holder.reset();
  EXPECT_TRUE(file_t(open_file(p.c_str(), "wb", true)));
  // A daemon without standard input: a file may get descriptor 0, new or not, and is written all the same.
  const int input = ::dup(STDIN_FILENO);
  ::close(STDIN_FILENO);
  for (const auto& [name, mode] : {std::pair{"zero", "wb"}, {"one", "ab"}, {"zero", "r+b"}}) {
    file_t f(open_file(dir_.path(name).c_str(), mode, true));
    EXPECT_TRUE(f && ::fileno(f.get()) == 0) << mode;
  }
  ::dup2(input, STDIN_FILENO);
  ::close(input);
}

TEST_F(FileOps, WritersGoNeitherThroughALinkNorToASecondName) {
  std::filesystem::create_symlink(dir_.write("target", "theirs"), dir_.path("link"));
  std::filesystem::create_hard_link(dir_.write("other", "theirs"), dir_.path("hard"));
  for (const char* name : {"link", "hard"})
    for (const char* mode : {"wb", "ab", "r+b"})
      EXPECT_EQ(file_t(open_file(dir_.path(name).c_str(), mode, false)), nullptr) << name << " " << mode;
  EXPECT_EQ(read_file(dir_.path("target")) + read_file(dir_.path("other")), "theirstheirs");
}

// The digits example of GOST R 34.11-2012, in each type and decoration form.
TEST(CalcHash, HashesTheStandardExampleInEveryTypeAndDecoration) {
  // The agent may have set the library up before the module.
  gcry_check_version(nullptr), gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
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
      {"#MD5:", "#GOST3411_256_2012:" + gost256},  // unknown: the default type
  };
  for (const auto& [type, expected] : rows) {
    std::string result;
    ASSERT_TRUE(HashFileChecker::CalcHash(path, type, result)) << type;
    EXPECT_EQ(result, expected) << type;
  }
}

// Sizes around the read block and the algorithms' 64-byte blocks, where a
// streaming fault would show, against two independent implementations.
TEST(CalcHash, AgreesWithRhashAndOpenSslOnRandomFiles) {
  fixtures::scratch_dir_t dir;
  const auto shell = [&](const std::string& command) { return fixtures::run_program({"/bin/sh", "-c", command}, dir).out; };
  if (shell("command -v rhash").empty()) GTEST_SKIP() << "rhash is not installed";
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
    EXPECT_EQ(ours256 + " " + ours512 + "\n" + ours256.substr(19) + "\n" + ours512.substr(19) + "\n",  // rhash's, then OpenSSL's
              shell("f=" + path + "; rhash --printf='#GOST3411_256_2012:%{gost12-256} #GOST3411_512_2012:%{gost12-512}\\n' $f; for m in "
                    "256 512; do openssl dgst -engine gost -md_gost12_$m -r $f | cut -d' ' -f1; done")) << size;
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
      {std::string(62, '0') + "9f", "#GOST3411_256_2012:"}, {std::string(63, 'a') + "g", ""}, {"SHA256 ", ""},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(getHashTypeDecorStr(text), expected) << "'" << text << "'";
  // Set up by the module as its manual asks, so that another user in the process leaves it be.
  std::string result;
  EXPECT_TRUE(HashFileChecker::CalcHash(dir.write("f", "x"), "", result) &&
              gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P));
}

}  // namespace
}  // namespace platform
}  // namespace update
