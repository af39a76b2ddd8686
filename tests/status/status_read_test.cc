#include "status/status_fixture.h"

namespace update::testing {
namespace {

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
