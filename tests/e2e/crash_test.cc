// The built corvid-update killed at random moments of an install and started
// again: the status file stays whole, the first start after a cut-off run
// says so, and the update ends installed without fetching again what had
// arrived; then the same for the next version, which comes as a patch and
// never as the whole file. CORVID_CRASH_SEED repeats a run's moments.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <thread>

#include "fixtures/fault_server.h"
#include "fixtures/scratch_dir.h"
#include "platform/hash_file.h"
#include "platform/xml_document.h"
#include "sign/patch_make.h"

namespace {

using fixtures::read_file;
using std::chrono::milliseconds;

constexpr size_t big_size = 3 << 20, rollback = 16384, fsync_size = 4096, chunk = 4096;

class CrashTest : public ::testing::Test {
 protected:
  std::vector<std::string> host(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{CORVID_BIN_DIR "/corvid-update", "--root", root_};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }
  pid_t start_install() const {
    return fixtures::spawn_child(host({"--answer", "yes", "install", uri_}), -1, dir_.path("host.log"));
  }
  // Runs the host to its end and returns what it printed.
  std::string run(const std::vector<std::string>& args) const { return fixtures::run_program(host(args), dir_).out; }
  // Polls until done() holds; false if the host ended first or limit passed.
  template <class F>
  static bool wait_for(pid_t pid, F done, milliseconds limit = milliseconds(20000)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
      if (waitpid(pid, nullptr, WNOHANG) == pid || std::chrono::steady_clock::now() > end) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    return true;
  }
  // A file's identity and times: a save renames a new file over the old.
  static std::string stamp(const std::string& path) {
    struct stat s {};
    if (stat(path.c_str(), &s) != 0) return "-";
    char text[96];
    std::snprintf(text, sizeof text, "%lu %lu %ld.%ld %ld.%ld", s.st_ino, s.st_size, s.st_mtim.tv_sec,
                  s.st_mtim.tv_nsec, s.st_ctim.tv_sec, s.st_ctim.tv_nsec);
    return text;
  }
  // SIGKILL to a host that still runs; false if it had ended.
  static bool kill_host(pid_t pid) {
    const bool running = waitpid(pid, nullptr, WNOHANG) == 0 && kill(pid, SIGKILL) == 0;
    waitpid(pid, nullptr, 0);
    return running;
  }
  // The status file must parse whole; true if it shows a run cut off, an
  // entry in the middle of a step without an error.
  bool saved_cut_off(int kill) const {
    std::ifstream in(status_);
    if (!in) return false;  // killed before the first save
    XMLDocument document("update-status");
    try {
      document.Read(in);
    } catch (const std::exception& e) {
      ADD_FAILURE() << "after kill " << kill << ": " << e.what() << "\n" << read_file(status_);
      return false;
    }
    static const std::set<std::string> midway{"outofdate", "download", "install"};
    for (size_t i = 0; i < document.GetElementsCount(); ++i) {
      const XMLDeclaration e = document.GetElement(i);
      const char* state = e.FindAttribute("state");
      if (e.NameEqual("file") && state && midway.count(state) && e.GetText().empty()) return true;
    }
    return false;
  }

  fixtures::scratch_dir_t dir_;
  const std::string root_ = dir_.path("agent"), update_ = root_ + "/var/update/", status_ =
      update_ + "corvid_update_status.xml";
  std::string uri_;
};

TEST_F(CrashTest, KilledHostFindsItsStatusAndFinishesWithoutFetchingAgain) {
  const char* fixed = std::getenv("CORVID_CRASH_SEED");
  const unsigned seed = fixed ? static_cast<unsigned>(std::stoul(fixed)) : std::random_device{}();
  std::printf("crash test seed: %u\n", seed);
  std::mt19937 random(seed);
  auto between = [&](int low, int high) { return milliseconds(std::uniform_int_distribution<>(low, high)(random)); };

  const std::string served = dir_.path("served/");
  std::filesystem::create_directories(served);
  std::string big(big_size, '\0');
  for (auto& c : big) c = static_cast<char>(random());
  const std::map<std::string, std::string> files{{"big.bin", big}, {"small.txt", "a small file\n"}};
  std::string hashes, sizes;
  for (const auto& [name, bytes] : files) {
    std::string hash;
    ASSERT_TRUE(HashFileChecker::CalcHash(dir_.write("served/" + name, bytes), "", hash));
    hashes += (hashes.empty() ? "" : ",") + hash;
    sizes += (sizes.empty() ? "" : ",") + std::to_string(bytes.size());
  }
  // The command takes a moment, so that kills land inside it, and tells its
  // process group: a crash of the service takes its command down with it.
  dir_.write("served/update.ini",
             "[corvid]\ndownload_rollback_size=" + std::to_string(rollback) + "\ndownload_fsync_size=" +
                 std::to_string(fsync_size) + "\nversion.1=2.0\nfile.1=big.bin,small.txt\nhash.1=" + hashes +
                 "\nfilesize.1=" + sizes +
                 "\nexec.1=sh -c \"echo $$ >$update_path/installing && sleep 1 && mkdir -p $agent_bin && cp "
                 "$download_path/big.bin $download_path/small.txt $agent_bin/ && echo 2.0 "
                 ">$update_path/big.bin.version && echo 2.0 >$update_path/small.txt.version\"\nexec_wait.1=1\n");
  fixtures::fault_server_t server;
  ASSERT_TRUE(server.start(served + "big.bin", {}, "trickle&chunk=" + std::to_string(chunk) + "&interval_ms=4",
                           served));
  uri_ = server.url("/");
  const std::string final_path = update_ + "big.bin", temporary = final_path + ".download.2.0",
                    marker = update_ + "installing";

  int attempts = 0, kills = 0, cut_off = 0;
  // Counts a kill of a host that still ran, then starts the host on the
  // status alone, as the service's next life would.
  auto restart_check = [&](bool killed) {
    kills += killed;
    const bool cut = saved_cut_off(kills);
    const bool says = run({"status"}).find("update_msg=Process was not correctly terminated\n") != std::string::npos;
    EXPECT_EQ(says, cut) << "after kill " << kills << ":\n" << read_file(status_);
    cut_off += cut;
  };
  // The download, until the file has its final name: kills at a random
  // moment of the transfer alternate with kills right after a status save.
  while (!std::filesystem::exists(final_path)) {
    ASSERT_LT(attempts++, 60) << "the download makes no headway";
    const std::string before = stamp(attempts % 2 ? temporary : status_);
    const pid_t pid = start_install();
    if (attempts % 2 == 1) {
      // A random moment after the transfer began; at the latest as the file
      // takes its final name, before the status records it.
      wait_for(pid, [&] { return stamp(temporary) != before; });
      const auto end = std::chrono::steady_clock::now() + between(0, 600);
      wait_for(pid, [&] { return std::chrono::steady_clock::now() > end || std::filesystem::exists(final_path); });
      restart_check(kill_host(pid));
    } else {
      std::string seen = before;
      for (int saves = std::uniform_int_distribution<>(1, 2)(random); saves > 0; --saves)
        wait_for(pid, [&] {
          const std::string now = stamp(status_);
          return now != seen && !(seen = now).empty();
        });
      restart_check(kill_host(pid));
    }
  }
  // The install command, as many times as it takes to reach 20 kills.
  for (int n = std::max(5, 20 - kills); n > 0; --n) {
    std::filesystem::remove(marker);
    const pid_t pid = start_install();
    ASSERT_TRUE(wait_for(pid, [&] { return read_file(marker).find('\n') != std::string::npos; }));
    std::this_thread::sleep_for(between(0, 400));
    const bool killed = kill_host(pid);
    kill(-std::stoi(read_file(marker)), SIGKILL);
    restart_check(killed);
  }

  std::filesystem::remove(marker);
  const std::string installed = run({"--answer", "yes", "install", uri_});
  EXPECT_EQ(installed, "update_state=uptodate\n") << read_file(status_);
  for (const auto& [name, bytes] : files) EXPECT_TRUE(read_file(root_ + "/bin/" + name) == bytes) << name;

  // Every answer ends at the latest at its next write to a client that is gone.
  uint64_t big_served = 0;
  for (const auto& answer : server.sent(server.requests().size()))
    if (answer.target == "/big.bin") big_served += answer.body_bytes;
  // In flight at a kill: what the stream had not flushed, what the sockets
  // held, and what the server wrote before it saw the client gone.
  const uint64_t bound = big_size + kills * (rollback + fsync_size + 4 * chunk);
  EXPECT_GE(kills, 20);
  EXPECT_GT(cut_off, 0);
  EXPECT_LE(big_served, bound);
  EXPECT_GE(big_served, big_size);

  // Version 3.0 changes 64 KiB of big.bin and offers a patch from 2.0, which
  // trickles, so that kills land in its transfer, its application and after.
  std::string big3 = big, patch, error;
  for (size_t i = 1 << 20; i < (1 << 20) + (64 << 10); ++i) big3[i] = static_cast<char>(random());
  ASSERT_TRUE(update::make_patch(reinterpret_cast<const unsigned char*>(big.data()), big.size(),
                         reinterpret_cast<const unsigned char*>(big3.data()), big3.size(), patch, error));
  std::string base_hash, hash3, patch_hash;
  HashFileChecker::CalcHash(served + "big.bin", "", base_hash);
  HashFileChecker::CalcHash(dir_.write("served/big.bin", big3), "", hash3);
  HashFileChecker::CalcHash(dir_.write("served/big.bin.p", patch), "", patch_hash);
  std::string ini = read_file(served + "update.ini");
  const std::pair<std::string, std::string> changes[] = {{"2.0", "3.0"}, {hashes.substr(0, hashes.find(',')), hash3}};
  for (const auto& [from, to] : changes)
    for (size_t at; (at = ini.find(from)) != std::string::npos;) ini.replace(at, from.size(), to);
  dir_.write("served/update.ini", ini + "patch.1=big.bin," + base_hash + "," + std::to_string(patch.size()) + "," +
                                      patch_hash + ",big.bin.p\n");
  fixtures::fault_server_t patch_server;
  ASSERT_TRUE(patch_server.start(served + "big.bin.p", {}, "trickle&chunk=2048&interval_ms=4", served));
  uri_ = patch_server.url("/");
  const std::string patch_file = update_ + "big.bin.download.3.0.patch",
                    patched = update_ + "big.bin.download.3.0.patched";
  const int patch_kills_from = kills;
  for (int n = 0; n < 8; ++n) {
    const std::string before = stamp(patch_file) + stamp(patched);
    const pid_t pid = start_install();
    wait_for(pid, [&] { return stamp(patch_file) + stamp(patched) != before; });
    std::this_thread::sleep_for(between(0, 150));
    restart_check(kill_host(pid));
  }
  EXPECT_EQ(run({"--answer", "yes", "install", uri_}), "update_state=uptodate\n") << read_file(status_);
  EXPECT_TRUE(read_file(root_ + "/bin/big.bin") == big3);
  EXPECT_GT(kills, patch_kills_from);
  for (const auto& answer : patch_server.requests()) EXPECT_NE(answer.target, "/big.bin");
}

}  // namespace
