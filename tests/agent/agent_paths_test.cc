// The agent's directories and the two file-system helpers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

#include "agent/agent.h"
#include "fixtures/nginx_server.h"
#include "platform/agent_paths.h"

namespace {

class AgentFsTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = fixtures::make_temp_dir("agentfs"); }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string dir_;
};

TEST_F(AgentFsTest, MakesNestedDirectoriesForTheOwnerOnly) {
  const std::string deep = dir_ + "/a/b//c/";
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(deep), 0);
  struct stat st;
  ASSERT_EQ(stat((dir_ + "/a/b/c").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(deep), 0);  // existing is fine

  std::ofstream(dir_ + "/file") << "x";
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir_ + "/file"), -1);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir_ + "/file/under"), -1);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(""), -1);
}

TEST_F(AgentFsTest, ReadOnlyCompanionBecomesWritableForItsOwner) {
  const std::string target = dir_ + "/corvid_update_status.xml";
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(target + ".bak", target), 0);  // none yet
  std::ofstream(target + ".bak") << "old";
  ASSERT_EQ(chmod((target + ".bak").c_str(), 0444), 0);
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(target + ".bak", target), 0);
  struct stat st;
  ASSERT_EQ(stat((target + ".bak").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
}

}  // namespace
