// The download stage over real servers, each call preceded by the per-file
// decision as a run makes it: resume across runs, verification, temporary
// files left by an earlier life, and the commands before a download.
#include <gtest/gtest.h>

#include "planning/plan_rule.h"
#include "platform/hash_file.h"
#include "transfer/download_stage.h"
#include "transfer/transfer_support.h"

namespace update::transfer_test {
namespace {

class DownloadStage : public transfer_test_t {
 protected:
  // A rule of version 2 whose files come from base + name, all with the
  // source's hash unless one is given.
  file_rule_t& rule_of(const std::string& base, const std::vector<std::string>& names, const char* hash = nullptr) {
    static_cast<params_t&>(ini) = quick_params();
    file_rule_t& rule = ini.rules.emplace_back();
    rule.update_version = "2";
    rule.owner = &ini;
    std::string source_hash;
    HashFileChecker::CalcHash(dir_.write("reference", source), "", source_hash);
    for (const auto& name : names)
      rule.entries.push_back({name, dir_.path(name), base + name, hash ? hash : source_hash, 3000, false});
    return rule;
  }
  // What one run does with a rule once its source is merged.
  void run(file_rule_t& rule) {
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      for (const auto& e : rule.entries) status.file_entry(e.name).available = true;
    }
    plan_rule(rule, dir_.path());
    download_rule(rule, handle);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.current_file = nullptr;
  }
  file_status_t entry(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.file_entry(name);
  }

  update_ini_t ini;
};

TEST_F(DownloadStage, CutDownloadResumesInTheNextRunWithARange) {
  ASSERT_TRUE(serve({"cut&bytes=1200"}));
  file_rule_t& rule = rule_of(server.url().substr(0, server.url().rfind('/') + 1), {"f.bin"});
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_download);
  EXPECT_NE(entry("f.bin").error.find("Download error: "), std::string::npos);
  EXPECT_EQ(disk_size(dir_.path("f.bin.download.2")), 1200);

  run(rule);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][bytes=1200- 206]");
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_EQ(entry("f.bin").error, "");
  EXPECT_TRUE(read_file(dir_.path("f.bin")) == source);
  EXPECT_EQ(disk_size(dir_.path("f.bin.download.2")), -1);
  EXPECT_TRUE(rule.entries.front().ready);
}

// A file that cannot be written to the disk keeps its temporary name; the
// next run takes it whole, without a request.
TEST_F(DownloadStage, FileThatCannotReachTheDiskIsNotRenamedAndIsTakenNextTime) {
  ASSERT_TRUE(start_nginx());
  file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin"});
  platform::file_faults().fail_sync = true;
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_download);
  EXPECT_EQ(entry("f.bin").error, "Failed to write downloaded file to disk: " + target);
  EXPECT_EQ(disk_size(dir_.path("f.bin")), -1);
  platform::file_faults().fail_sync = false;
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_TRUE(read_file(dir_.path("f.bin")) == source);
  EXPECT_EQ(nginx.requests(1).size(), 1u);
}

TEST_F(DownloadStage, VerifiesInTheTypeTheDescriptionNames) {
  ASSERT_TRUE(start_nginx());
  std::string gost, sha;
  HashFileChecker::CalcHash(dir_.write("reference", source), "", gost);
  HashFileChecker::CalcHash(dir_.path("reference"), "$sha256:", sha);
  const std::pair<std::string, bool> rows[] = {
      {gost, true},
      {"$gost3411_256_2012:" + gost.substr(gost.find(':') + 1), true},  // a lower-case type verifies too
      {sha, true},
      {"", true},  // nothing to compare with
      {"#GOST3411_256_2012:" + std::string(64, '0'), false},
  };
  for (const auto& [hash, good] : rows) {
    SetUp();
    ini.rules.clear();
    run(rule_of(nginx.url("/"), {"f.bin"}, hash.c_str()));
    const file_status_t f = entry("f.bin");
    EXPECT_EQ(f.state, file_downloaded) << hash;
    EXPECT_EQ(f.download_hash.substr(0, hash.find(':') + 1), hash.substr(0, hash.find(':') + 1)) << hash;
    EXPECT_EQ(f.error, good ? "" : "[f.bin] Hash mismatch. Calculated: " + f.download_hash + ", from update server: " + hash);
    EXPECT_EQ(status.derive_result(), good ? status_downloaded : status_error) << hash;
    EXPECT_TRUE(read_file(dir_.path("f.bin")) == source);
  }
}

// The commands run once for the rule, before its first fetch, and not at all
// when nothing is fetched; an oversized temporary file is fetched anew.
TEST_F(DownloadStage, CommandsGoFirstAndAnOversizedTemporaryFileIsRefetched) {
  ASSERT_TRUE(start_nginx());
  ASSERT_TRUE(nginx.put_file("g.bin", source));
  file_rule_t& rule = rule_of(nginx.url("/"), {"f.bin", "g.bin"});
  const std::string count = dir_.path("count");
  rule.exec_before_download = {"sh -c 'test -e " + target + " || echo ran >>" + count + "'"};
  write_file(dir_.path("g.bin.download.2"), source + "tail");
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_EQ(entry("g.bin").state, file_downloaded);
  EXPECT_TRUE(read_file(dir_.path("g.bin")) == source);
  EXPECT_EQ(ranges_of(nginx.requests(2)), "[- 200][- 200]");
  run(rule);
  EXPECT_EQ(read_file(count), "ran\n");
}

}  // namespace
}  // namespace update::transfer_test
