// The status file: its text, byte for byte, its durable save, and its reader.
#include <gtest/gtest.h>

#include <filesystem>

#include "frame/update.h"
#include "status/status_fixture.h"

namespace update::testing {
namespace {

const char declaration[] = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

// The status of the worked example: one failed download of the agent.
void fill_example() {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.result = status_error;
  status.cmd = "download";
  status.cmdid = "7";
  status.start_time = "2026-01-02T03:04:05";
  status.messages.push_back({"", "", 0});  // empty: leaves no trace
  status.messages.push_back({"x/a", "Download error", status_download});
  file_status_t& f = status.file_entry("agent");
  f.state = file_download, f.update_version = "5.1", f.download_size = 100, f.total_size = 200;
  f.uri = "x/a?b=1&c=2", f.type = 1, f.available = true, f.error = "Download error";
  status.hashes.entries["a.txt"].push_back("#GOST3411_256_2012:ab12");
}

const char example_text[] =
    "<update-status result=\"error\" download_size=\"100\" total_size=\"200\" cmd=\"download\" cmdid=\"7\" "
    "start_time=\"2026-01-02T03:04:05\">\n"
    "<message uri=\"x/a\" state=\"download\">Download error</message>\n"
    "<file name=\"agent\" state=\"download\"\n"
    "\tupdate_version=\"5.1\"\n"
    "\tdownload_size=\"100\"\n"
    "\ttotal_size=\"200\"\n"
    "\turi=\"x/a?b=1&amp;c=2\"\n"
    "\ttype=\"agent\"\n"
    ">Download error</file>\n"
    "<hash file=\"a.txt\" hash=\"#GOST3411_256_2012:ab12\" />\n"
    "</update-status>\n";

TEST_F(StatusTest, RendersOtherAttributesOnlyWhenSetAndUnknownCodesAsUndefined) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.result = static_cast<status_code_t>(99);
  status.messages.push_back({"", "bad", 42});
  file_status_t& full = status.file_entry("full");
  full.state = file_uptodate, full.current_version = "1.0", full.download_hash = "#H:00";
  full.download_size = 18446744073709551615ull;
  full.installed_time = "2024-01-01T00:00:00", full.uptodate_time = "2024-01-02T00:00:00";
  status.file_entry("undecided");  // state 0, not available: written all the same
  status.hashes.entries["b"] = {"#T:", "#T:1"};
  status.render_xml();
  EXPECT_EQ(status.xml,
            "<update-status result=\"undefined\" download_size=\"0\" total_size=\"0\" cmd=\"\" cmdid=\"\" "
            "start_time=\"\">\n"
            "<message uri=\"\" state=\"undefined\">bad</message>\n"
            "<file name=\"full\" state=\"uptodate\"\n"
            "\tcurrent_version=\"1.0\"\n"
            "\tdownload_hash=\"#H:00\"\n"
            "\tdownload_size=\"18446744073709551615\"\n"
            "\tinstalled_time=\"2024-01-01T00:00:00\"\n"
            "\tuptodate_time=\"2024-01-02T00:00:00\"\n"
            "/>\n"
            "<file name=\"undecided\" state=\"\"\n/>\n"
            "<hash file=\"b\" hash=\"#T:\" />\n"
            "<hash file=\"b\" hash=\"#T:1\" />\n"
            "</update-status>\n");
}

TEST_F(StatusTest, EscapesAttributesAndTextsDifferently) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.cmdid = "a\"b&";  // the daemon's own words pass unescaped
  status.messages.push_back({"u\"<&>", "t\"<&>\xd0\xb6", status_prepare});
  file_status_t& f = status.file_entry("n\"a<m>e&");
  f.error = "e\"<&>";
  status.hashes.entries["k\"&"] = {"h<\">"};
  status.render_xml();
  const std::string& x = status.xml;
  EXPECT_NE(x.find("cmdid=\"a\"b&\""), std::string::npos);
  EXPECT_NE(x.find("<message uri=\"u&quot;&lt;&amp;&gt;\" state=\"prepare\">t\"&lt;&amp;&gt;\xd0\xb6</message>"),
            std::string::npos);
  EXPECT_NE(x.find("<file name=\"n&quot;a&lt;m&gt;e&amp;\" state=\"\""), std::string::npos);
  EXPECT_NE(x.find("\n>e\"&lt;&amp;&gt;</file>\n"), std::string::npos);
  EXPECT_NE(x.find("<hash file=\"k&quot;&amp;\" hash=\"h&lt;&quot;&gt;\" />"), std::string::npos);
}

TEST_F(StatusTest, SaveWritesTheExampleThroughTheCompanionAndAFailedReplaceLeavesTheOldFileWhole) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.save();
  const std::string old_text = read_file(status_path());
  fill_example();
  platform::file_faults().fail_replace = true;
  status.save();
  EXPECT_EQ(read_file(status_path()), old_text);
  EXPECT_EQ(read_file(status_path() + ".bak"), std::string(declaration) + example_text);
  // The next save renders afresh, goes through and takes the companion's place.
  platform::file_faults().fail_replace = false;
  status.xml = "stale";
  status.save();
  EXPECT_EQ(status.xml, example_text);
  EXPECT_EQ(read_file(status_path()), std::string(declaration) + example_text);
  EXPECT_FALSE(std::filesystem::exists(status_path() + ".bak"));
  EXPECT_EQ(log_text(log_id_failure), "");
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
      {head + "<file name=\"a\" state=\"downloaded\" download_size=\"-1\" total_size=\" +7\"/>"
              "<file name=\"b\" download_size=\"12x\" total_size=\"9223372036854775808\"/>"
              "<file name=\"c\" total_size=\"9223372036854775807\" download_size=\"\"/></update-status>",
       "check|7 f:a:4:0:7:0: f:b:0:0:0:0: f:c:0:0:9223372036854775807:0:"},
      {head + "<message state=\"error\">e1</message><message uri=\"u&amp;1\" state=\"install\">e2</message>"
              "<message>e3</message><message state=\"download\"/><file name=\"a\" state=\"Installed\" type=\"Agent\"/>"
              "<file name=\"a\" state=\"uptodate\" type=\"agent\">x &lt; y</file><hash file=\"a\" hash=\"abcd\"/>"
              "<hash file=\"a\" hash=\"#T:ab\"/><hash hash=\"#T:cd\"/><other/></update-status>",
       "check|7 m:0::e1 m:3:u&1:e2 m:0::e3 m:2:: f:a:0:0:0:0: f:a:1:0:0:1:x < y h:a=#T:ab"},
  };
  for (const auto& [text, expected] : rows) {
    status.reset();
    ASSERT_TRUE(fixtures::write_file(status_path(), text));
    EXPECT_TRUE(status.load());
    EXPECT_EQ(read_back(), expected) << text;
  }
  EXPECT_EQ(log_.all(", xml syntax error: ").size(), 4u) << log_text();
}

TEST_F(StatusTest, WhatIsSavedReadsBackWithEveryField) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.cmd = "install manual", status.cmdid = "id-1", status.start_time = "2026-01-02T03:04:05";
  status.messages.push_back({"http://s/?a=1&b=\"2\"", "failed: <x> & \"y\"", status_install});
  status.files.push_back({"dir/a \"b\" & c.bin", 1, file_install, "1.0", "2.0", "#GOST3411_256_2012:ab", 0,
                          18446744073709551ull, 7, "http://s/a?x=1&y=2", "exec failed", "2026-01-02T03:04:06",
                          "2026-01-01T00:00:00"});
  status.file_entry("blank").error = " ";
  for (int state = file_uptodate; state <= file_installed; ++state)
    status.file_entry("state " + std::to_string(state)).state = static_cast<file_state_t>(state);
  status.hashes.store("dir/a \"b\" & c.bin", "$sha256:cd");
  status.save();
  const std::string saved = status.xml;
  status.reset();
  EXPECT_TRUE(status.load());
  status.render_xml();
  EXPECT_EQ(status.xml, saved);
}

}  // namespace
}  // namespace update::testing
