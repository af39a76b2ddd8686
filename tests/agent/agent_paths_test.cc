// The agent's two file-system helpers.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "agent/agent.h"
#include "fixtures/scratch_dir.h"
#include "platform/agent_paths.h"

namespace {

mode_t mode_of(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mode & (S_IFMT | 0777) : 0;
}

TEST(AgentFs, MakesNestedDirectoriesForTheOwnerOnly) {
  fixtures::scratch_dir_t dir;
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir.path("a/b//c/")), 0);
  EXPECT_EQ(mode_of(dir.path("a/b/c")), S_IFDIR | 0700u);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(dir.path("a/b//c/")), 0);  // existing is fine

  const std::string file = dir.write("file", "x");
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(file), -1);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(file + "/under"), -1);
  EXPECT_EQ(agent_fs_mkdir_if_not_exist_rwx_usr(""), -1);
}

TEST(AgentFs, ReadOnlyCompanionBecomesWritableForItsOwner) {
  fixtures::scratch_dir_t dir;
  const std::string target = dir.path("corvid_update_status.xml"), bak = target + ".bak";
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(bak, target), 0);  // none yet
  dir.write("corvid_update_status.xml.bak", "old");
  ASSERT_EQ(chmod(bak.c_str(), 0444), 0);
  EXPECT_EQ(agent_fs_chmod_bak_rw_usr(bak, target), 0);
  EXPECT_EQ(mode_of(bak), S_IFREG | 0644u);
}

}  // namespace
