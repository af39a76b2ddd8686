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
  // A rule of version 2 whose files come from base + name.
  file_rule_t& rule_of(const std::string& base, const std::vector<std::pair<std::string, std::string>>& files) {
    static_cast<params_t&>(ini) = quick_params();
    file_rule_t& rule = ini.rules.emplace_back();
    rule.update_version = "2";
    rule.owner = &ini;
    for (const auto& [name, hash] : files) {
      file_entry_t& e = rule.entries.emplace_back();
      e.name = name;
      e.local_path = dir.path(name);
      e.uri = base + name;
      e.hash = hash;
      e.size = 3000;
    }
    return rule;
  }
  // What one run does with a rule once its source is merged.
  void run(file_rule_t& rule) {
    {
      std::lock_guard<std::recursive_mutex> hold(status.lock);
      for (const auto& e : rule.entries) status.file_entry(e.name).available = true;
    }
    plan_rule(rule, dir.path());
    download_rule(rule, handle);
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    status.current_file = nullptr;
  }
  file_status_t entry(const std::string& name) {
    std::lock_guard<std::recursive_mutex> hold(status.lock);
    return status.file_entry(name);
  }
  std::string hash_of_source() {
    std::string hash;
    HashFileChecker::CalcHash(dir.write("reference", source), "", hash);
    return hash;
  }

  update_ini_t ini;
};

TEST_F(DownloadStage, CutDownloadResumesInTheNextRunWithARange) {
  ASSERT_TRUE(serve({"cut&bytes=1200"}));
  file_rule_t& rule = rule_of(server.url().substr(0, server.url().rfind('/') + 1), {{"f.bin", hash_of_source()}});
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_download);
  EXPECT_NE(entry("f.bin").error.find("Download error: "), std::string::npos);
  EXPECT_EQ(disk_size(dir.path("f.bin.download.2")), 1200);

  run(rule);
  EXPECT_EQ(ranges_of(server.requests()), "[- 200][bytes=1200- 206]");
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_EQ(entry("f.bin").error, "");
  EXPECT_TRUE(read_file(dir.path("f.bin")) == source);
  EXPECT_EQ(disk_size(dir.path("f.bin.download.2")), -1);
  EXPECT_TRUE(rule.entries.front().ready);
}

TEST_F(DownloadStage, VerifiesInTheTypeTheDescriptionNames) {
  ASSERT_TRUE(start_nginx());
  const std::string digest = hash_of_source().substr(hash_of_source().find(':') + 1);
  const std::string sha = [&] {
    std::string h;
    HashFileChecker::CalcHash(dir.path("reference"), "$sha256:", h);
    return h;
  }();
  const std::pair<std::string, bool> rows[] = {
      {"#GOST3411_256_2012:" + digest, true},
      {"$gost3411_256_2012:" + digest, true},  // a lower-case type verifies too
      {sha, true},
      {"", true},  // nothing to compare with
      {"#GOST3411_256_2012:" + std::string(64, '0'), false},
  };
  for (const auto& [hash, good] : rows) {
    reset_module_for_tests();
    status.save_enabled = false;
    set_module_state(module_busy);
    ini.rules.clear();
    run(rule_of(nginx.url("/"), {{"f.bin", hash}}));
    const file_status_t f = entry("f.bin");
    EXPECT_EQ(f.state, file_downloaded) << hash;
    EXPECT_EQ(f.download_hash.substr(0, hash.find(':') + 1), hash.substr(0, hash.find(':') + 1)) << hash;
    const std::string mismatch = "[f.bin] Hash mismatch. Calculated: " + f.download_hash + ", from update server: " + hash;
    EXPECT_EQ(f.error, good ? "" : mismatch);
    EXPECT_EQ(status.derive_result(), good ? status_downloaded : status_error) << hash;
    EXPECT_TRUE(read_file(dir.path("f.bin")) == source);
  }
}

TEST_F(DownloadStage, TakesAWholeTemporaryFileAndRefetchesAnOversizedOne) {
  ASSERT_TRUE(start_nginx());
  ASSERT_TRUE(nginx.put_file("g.bin", source));
  file_rule_t& rule = rule_of(nginx.url("/"), {{"f.bin", hash_of_source()}, {"g.bin", hash_of_source()}});
  const std::string count = dir.path("count");
  rule.exec_before_download = {"sh -c 'echo ran >>" + count + "'"};
  write_file(dir.path("f.bin.download.2"), source);
  write_file(dir.path("g.bin.download.2"), source + "tail");
  run(rule);
  EXPECT_EQ(entry("f.bin").state, file_downloaded);
  EXPECT_EQ(entry("g.bin").state, file_downloaded);
  EXPECT_TRUE(read_file(dir.path("g.bin")) == source);
  const auto served = nginx.requests(1);
  ASSERT_EQ(served.size(), 1u);
  EXPECT_EQ(served.front().target + ranges_of(served), "/g.bin[- 200]");
  // Once for the rule, and not at all when nothing is fetched.
  run(rule);
  EXPECT_EQ(read_file(count), "ran\n");
}

}  // namespace
}  // namespace update::transfer_test
