// The status file: its text, byte for byte, its durable save, and its reader.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/update.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

const char declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// A status with every field and every byte that needs escaping, or a reference (what a reader would change)
// or U+FFFD (what XML cannot carry). Sizes and times appear only when set, unknown codes read as undefined,
// an empty message leaves no trace.
void fill_all() {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.result = status_error, status.cmd = "install manual", status.cmdid = "7\"<&>";
  status.start_time = "2026-01-02T03:04:05";
  status.messages = {{"", "", 0}, {"u\"<&>", "t\"<&>\xd0\xb6", status_install}, {"x", "bad", 42}};
  status.files.push_back({"n\"a<m>e&\r\t\n", 1, file_install, "1.0\r\x01", "2.0\"<&>", "#H:\"<&>", 0,
                          18446744073709551ull, 7, "x/a?b=1&c=2", "#B:<", 9, "e\"<&>\r\n\t\x1f", "2024-01-01T00:00:00",
                          "2024-01-02T00:00:00", true});
  status.file_entry("undecided");  // state 0, not available: written all the same
  status.file_entry("installed").state = file_installed;
  status.hashes.entries["k\"&"] = {"#T:", "#T:h<\">"};
}

const char all_text[] =
    "<update-status result=\"error\" download_size=\"18446744073709551\" total_size=\"7\" cmd=\"install manual\" "
    "cmdid=\"7&quot;&lt;&amp;&gt;\" start_time=\"2026-01-02T03:04:05\">\n"
    "<message uri=\"u&quot;&lt;&amp;&gt;\" state=\"install\">t\"&lt;&amp;&gt;\xd0\xb6</message>\n"
    "<message uri=\"x\" state=\"undefined\">bad</message>\n"
    "<file name=\"n&quot;a&lt;m&gt;e&amp;&#13;&#9;&#10;\" state=\"install\"\n"
    "\tcurrent_version=\"1.0&#13;\xEF\xBF\xBD\"\n\tupdate_version=\"2.0&quot;&lt;&amp;&gt;\"\n"
    "\tdownload_hash=\"#H:&quot;&lt;&amp;&gt;\"\n"
    "\tdownload_size=\"18446744073709551\"\n\ttotal_size=\"7\"\n\turi=\"x/a?b=1&amp;c=2\"\n"
    "\tbase_hash=\"#B:&lt;\"\n\tbase_size=\"9\"\n\ttype=\"agent\"\n"
    "\tinstalled_time=\"2024-01-01T00:00:00\"\n\tuptodate_time=\"2024-01-02T00:00:00\"\n"
    ">e\"&lt;&amp;&gt;&#13;\n\t\xEF\xBF\xBD</file>\n"
    "<file name=\"undecided\" state=\"\"\n/>\n<file name=\"installed\" state=\"installed\"\n/>\n"
    "<hash file=\"k&quot;&amp;\" hash=\"#T:\" />\n<hash file=\"k&quot;&amp;\" hash=\"#T:h&lt;&quot;&gt;\" />\n"
    "</update-status>\n";

// A failed replace leaves the old file whole; the next save renders afresh,
// goes through and takes the companion's place, and reads back whole.
TEST_F(StatusTest, SaveWritesEveryFieldThroughTheCompanionAndReadsItBack) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.save();
  const std::string old_text = read_file(status_path());
  fill_all();
  platform::file_faults().fail_replace = true;
  status.save();
  EXPECT_EQ(read_file(status_path()), old_text);
  EXPECT_EQ(read_file(status_path() + ".bak"), std::string(declaration) + all_text);
  platform::file_faults().fail_replace = false;
  status.xml = "stale";
  // A lasting save, which syncs the directory too, leaves no descriptor open.
  const auto open_descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  const auto descriptors = open_descriptors();
  status.save(true);
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(read_file(status_path()), std::string(declaration) + all_text);
  EXPECT_FALSE(std::filesystem::exists(status_path() + ".bak"));
  EXPECT_EQ(log_text(log_id_failure), "");
  // What is saved reads back with every field.
  status.reset();
  EXPECT_TRUE(status.load());
  status.result = status_error;  // derived, never read, as availability is
  status.files.front().available = true;
  status.render_xml();
  EXPECT_EQ(status.xml, all_text);
}

TEST_F(StatusTest, UnwritableDirectoryLogsEachSaveAndStatusStillAnswers) {
  LPARAMS::server::set_update_dir(dir_.path("missing/"));
  status.begin_run(Command::download, "");
  status.record_error(0, "Download error: x");
  const std::string failure = "365 Failed to save update status to file: " + dir_.path("missing/corvid_update_status.xml");
  EXPECT_EQ(log_text(log_id_failure), failure + ";" + failure + ";");  // one line per save
  std::string text = "head:";  // appended to
  get_status_xml(text);
  EXPECT_EQ(text.rfind("head:<update-status result=\"prepare\"", 0), 0u);
  EXPECT_NE(text.find(">Download error: x</message>\n"), std::string::npos);
}

// What the reader made of the file, one word per record.
std::string read_back() {
  std::string s = status.cmd + "|" + status.cmdid;
  for (const auto& m : status.messages) s += " m:" + std::to_string(m.state) + ":" + m.uri + ":" + m.text;
  for (const auto& f : status.files) {
    s += " f:" + f.name + ":" + std::to_string(f.state) + ":" + std::to_string(f.download_size) + ":" +
         std::to_string(f.total_size) + ":" + std::to_string(f.type) + ":" + f.error;
  }
  for (const auto& [file, list] : status.hashes.entries)
    for (const auto& hash : list) s += " h:" + file + "=" + hash;
  return s;
}

TEST_F(StatusTest, ReaderRefusesBadSyntaxWhollyAndAnUnusableFieldAlone) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  const std::string head = "<?xml version=\"1.0\"?>\n<update-status cmd=\"check\" cmdid=\"7\">\n";
  const std::string corrupted = "| m:0::Update status file corrupted";
  const std::pair<std::string, std::string> rows[] = {
      {"", corrupted}, {head + "<file name=\"a\" state=\"download\"", corrupted},
      {"<status cmd=\"check\"/>", corrupted}, {head + "</update-status><update-status/>", corrupted},
      {head + "</update-status>\ntrailing\n", corrupted}, {head + "</update-status><![CDATA[x]]>", corrupted},
      {head + "<file name=\"a\" state=\"downloaded\" download_size=\"-1\" total_size=\" +7\"/>"
              "<file name=\"b\" download_size=\"12x\" total_size=\"9223372036854775808\"/>"
              "<file name=\"c\" total_size=\"9223372036854775807\" download_size=\"\"/></update-status>",
       "check|7 f:a:4:0:7:0: f:b:0:0:0:0: f:c:0:0:9223372036854775807:0:"},
      {head + "<message state=\"error\">e1</message><message uri=\"u&amp;1\" state=\"install\">e2</message>"
              "<message>e3</message><message state=\"download\"/><file name=\"a\" state=\"Installed\" type=\"Agent\"/>"
              "<file name=\"a\" state=\"uptodate\" type=\"agent\">x &lt; y</file><hash file=\"a\" hash=\"abcd\"/>"
              "<hash file=\"a\" hash=\"#T:ab\"/><hash file=\"a\" hash=\"#T:\"/><hash hash=\"#T:cd\"/><other/>"
              "</update-status>",  // a placeholder overwrites a value of its type
       "check|7 m:0::e1 m:3:u&1:e2 m:0::e3 m:2:: f:a:0:0:0:0: f:a:1:0:0:1:x < y h:a=#T:"},
  };
  for (const auto& [text, expected] : rows) {
    status.reset();
    ASSERT_TRUE(fixtures::write_file(status_path(), text));
    EXPECT_TRUE(status.load());
    EXPECT_EQ(read_back(), expected) << text;
  }
  EXPECT_EQ(log_.all(", xml syntax error: ").size(), 6u) << log_text();
}

}  // namespace
}  // namespace update::testing
