// The built corvid-update, run as a user would run it.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <sstream>
#include <thread>
#include <tuple>

#include <nlohmann/json.hpp>

#include "agent/bridge.h"
#include "fixtures/fault_server.h"
#include "fixtures/nginx_server.h"
#include "support/key_file.h"
#include "support/signature_file.h"

namespace {

using fixtures::outcome_t;
using fixtures::read_file;

// Bridge peers playing the attacker. "serve PATH EUID": a daemon listening as EUID that orders "touch PATH.ran"
// before it answers a frame. "member PATH": a client that offers to answer and never does, saying "asked".
const char* fake_peer = R"(
import os, socket, struct, sys
def send(c, t, n, v, b=b''): c.sendall(struct.pack('<4I', t, n, v, len(b)) + b)
def read(c): t, n, v, l = struct.unpack('<4I', c.recv(16, socket.MSG_WAITALL)); c.recv(l, socket.MSG_WAITALL); return t, n, v
s, path, cmd = socket.socket(socket.AF_UNIX), sys.argv[2], b'touch ' + sys.argv[2].encode() + b'.ran'
if sys.argv[1] == 'member':
  s.connect(path); send(s, 5, 1, 1); read(s); print('offered', flush=True)
  while True: read(s); print('asked', flush=True)
os.makedirs(os.path.dirname(path), exist_ok=True); s.bind(path + '.new'); os.seteuid(int(sys.argv[3])); s.listen(); os.seteuid(os.getuid()); os.rename(path + '.new', path)
while True:
  c = s.accept()[0]
  try:
    while True:
      if (t := read(c))[0] in (1, 5):
        send(c, 3, 9, 7, b'\1' + struct.pack('<I', len(cmd)) + cmd + b'\1\0'); read(c)
        send(c, 3, 10, 6, b'q')  # the install question too: only a no may come back
        if read(c)[2] != 0: open(path + '.ran', 'w')
        send(c, 2, t[1], t[0] == 5, b'\0' * 4 * (t[0] == 1))
  except Exception: c.close()
)";

// Whether text appears count times in the file within five seconds.
bool wait_for(const std::string& file, const std::string& text, size_t count = 1) {
  auto seen = [&] { size_t n = 0; for (size_t at = 0; (at = read_file(file).find(text, at)) != std::string::npos; ++at) ++n; return n; };
  for (int i = 0; i < 250 && seen() < count; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  return seen() >= count;
}

class HostTest : public ::testing::Test {
 protected:
  // Runs the host, or another program, with its per-user state kept inside the test's directory, its
  // output in outputs' (one each for programs that run at once).
  outcome_t run(const std::vector<std::string>& args, const std::string& program = "corvid-update",
                const fixtures::scratch_dir_t* outputs = nullptr) {
    std::vector<std::string> argv{"/usr/bin/env", "XDG_STATE_HOME=" + dir_.path("state"),
                                  program[0] == '/' ? program : CORVID_BIN_DIR "/" + program};
    argv.insert(argv.end(), args.begin(), args.end());
    return fixtures::run_program(argv, outputs ? *outputs : dir_);
  }
  // An empty RUNPATH entry (or a RUNPATH that is empty) searches the current directory for libraries.
  bool has_empty_runpath_entry(const std::string& file) {
    const std::string dynamic = run({"-d", file}, "/usr/bin/readelf").out, key = "Library runpath: [";
    const size_t at = dynamic.find(key);
    return at != std::string::npos &&
           (":" + dynamic.substr(at + key.size(), dynamic.find(']', at) - at - key.size()) + ":").find("::") !=
               std::string::npos;
  }
  void serve(const std::vector<const char*>& example_dirs) {
    std::string error;
    ASSERT_TRUE(server_.start(error)) << error;
    for (const char* dir : example_dirs)
      std::filesystem::copy(std::string(CORVID_SOURCE_DIR "/examples/") + dir, server_.root() + "/" + dir,
                            std::filesystem::copy_options::recursive);
  }
  fixtures::scratch_dir_t dir_;
  fixtures::nginx_server_t server_;
};

// Without --root the agent lives under the per-user state directory; a
// wrong command line is refused before anything starts.
TEST_F(HostTest, CommandLineDecidesWhatReachesTheModule) {
  const outcome_t o = run({"--cmdid", "7", "unknown", "http://127.0.0.1:1/"});
  EXPECT_EQ(o.out, "update_state=error\nupdate_msg=Unknown update command\n");
  EXPECT_NE(read_file(dir_.path("state/corvid/var/update/corvid_update_status.xml")).find("cmd=\"unknown\" cmdid=\"7\""),
            std::string::npos);
  EXPECT_EQ(run({"--xml", "check"}).exit_code, 2);
  EXPECT_EQ(run({"--cmdid", "a\x01", "check"}).exit_code, 2);  // XML cannot carry it
  EXPECT_EQ(run({"--bogus", "check"}).err, "corvid-update: unknown option --bogus\nTry 'corvid-update --help'.\n");
  EXPECT_EQ(run({"check", "--cmdid"}).err, "corvid-update: option --cmdid needs a value\nTry 'corvid-update --help'.\n");
  const std::pair<const char*, int> timeouts[] = {{"0", 2}, {"1x", 2}, {"86401", 2}, {"86400", 1}};  // 1: no URI
  for (const auto& [seconds, code] : timeouts) EXPECT_EQ(run({"--description-timeout", seconds, "check"}).exit_code, code);
  EXPECT_EQ(run({"serve", "--question-timeout"}).exit_code, 2);
  // No shared fallback for a root: another user could have made it first.
  const outcome_t rootless = run({"-u", "HOME", "-u", "XDG_STATE_HOME", CORVID_BIN_DIR "/corvid-update", "check"},
                                 "/usr/bin/env");
  EXPECT_EQ(rootless.exit_code, 1);
  EXPECT_NE(rootless.err.find("no agent root"), std::string::npos) << rootless.err;
  for (const char* file : {"bin/corvid-update", "bin/corvid-update-client", "bin/corvid-update-sign",
                           "lib/libcorvid_update.so", "lib/libcorvid_agent.so"})
    EXPECT_FALSE(has_empty_runpath_entry(CORVID_BIN_DIR "/../" + std::string(file))) << file;
}

// Root's state goes only where no one else can change it: a directory another user owns or may write is
// refused by name before anything is written, links planted at the module's files are not written through,
// and a directory the process cannot write (here nobody's) is locked and used, its saves failing aloud. The
// sources file is judged as the keys are.
TEST_F(HostTest, KeepsItsStateWhereNoOneElseCanChangeIt) {
  std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  const std::string target = dir_.write("target", "theirs");
  const auto own = [](const std::string& path, bool nobody, std::filesystem::perms mode) {
    std::filesystem::create_directories(path);
    std::filesystem::permissions(path, mode);
    EXPECT_TRUE(!nobody || ::chown(path.c_str(), 65534, 65534) == 0) << path;
    return path;
  };
  using std::filesystem::perms;
  const struct {
    std::function<std::string(const std::string& root)> plant;  // returns what the output must say
    std::vector<std::string> options = {};
    bool as_nobody = false, writes = false;
  } rows[] = {
      {[&](const std::string& r) { return "agent root: " + own(r, true, perms::owner_all) + " belongs to user 65534"; }},
      {[&](const std::string& r) {  // a directory on the way
         own(r, false, perms::owner_all);
         return "agent root: " + own(std::filesystem::path(r).parent_path(), true, perms::all) + " belongs to user";
       }},
      {[&](const std::string& r) {  // sticky or not: it holds the module's files
         return "update directory: " + own(r + "/var/update", false, perms::all | perms::sticky_bit) + " may be written";
       }},
      {[&](const std::string& r) { return "keys directory: " + own(r + "/etc/update-keys", false, perms::all) + " may be written"; }},
      {[&](const std::string& r) {
         const std::string key = own(r + "/etc/update-keys", false, perms::owner_all) + "/k.pub";
         EXPECT_TRUE(fixtures::write_file(key, "") && ::chown(key.c_str(), 65534, 65534) == 0);
         return "trusted keys: " + key + " belongs to user 65534";
       }},
      {[&](const std::string& r) {
         for (const char* name : {"corvid_update_status.xml.bak", "corvid_update.lock"})
           std::filesystem::create_symlink(target, own(r + "/var/update", false, perms::owner_all) + "/" + name);
         return "update_state=error";
       }, {}, false, true},
      {[&](const std::string& r) {
         own(r, true, perms::owner_all);
         return "Failed to save update status to file: " + dir_.path("readonly/");
       }, {"--update-dir", own(dir_.path("readonly"), false, perms::owner_read | perms::owner_exec | perms::others_read |
                                                          perms::others_exec)}, true, true},
      {[&](const std::string& r) {  // one that cannot be looked at is refused as well
         own(std::filesystem::path(r).parent_path(), false, perms::owner_all);
         return "agent root: " + r + " cannot be examined: Permission denied";
       }, {}, true},
  };
  int n = 0;
  for (const auto& row : rows) {
    const std::string root = dir_.path("r" + std::to_string(n++) + "/agent"), says = row.plant(root);
    std::vector<std::string> args{"--root", root};
    args.insert(args.end(), row.options.begin(), row.options.end());
    args.insert(args.end(), {"check", "http://127.0.0.1:1/"});
    if (row.as_nobody)
      args.insert(args.begin(), {"--reuid=nobody", "--regid=nogroup", "--clear-groups", CORVID_BIN_DIR "/corvid-update"});
    const outcome_t o = row.as_nobody ? run(args, "/usr/bin/setpriv") : run(args);
    EXPECT_NE((o.out + o.err).find(says), std::string::npos) << says << ": " << o.out << o.err;
    EXPECT_EQ(o.exit_code, 1) << says;
    EXPECT_EQ(std::filesystem::exists(root + "/log"), row.writes) << says;
    EXPECT_EQ((o.err.find("Failed to save") == std::string::npos), !(row.as_nobody && row.writes)) << says;  // a link is replaced
  }
  EXPECT_EQ(read_file(target), "theirs");
  // A sources file another user could change would choose what root fetches: refused, naming it.
  const std::string sources = dir_.write("sources", "http://127.0.0.1:1/\n");
  ASSERT_EQ(::chown(sources.c_str(), 65534, 65534), 0);
  const outcome_t theirs = run({"--root", dir_.path("s/agent"), "--sources", sources, "check"});
  EXPECT_EQ(theirs.exit_code, 1);
  EXPECT_NE(theirs.err.find("refusing the sources file " + sources + ": " + sources + " belongs to user 65534"),
            std::string::npos) << theirs.err;
}

TEST_F(HostTest, InstallsTheExampleThenServesTheClient) {
  serve({"repo", "agent"});
  const std::string root = dir_.path("agent"), source = server_.url("/repo/"), agent = server_.url("/agent/");
  // The agent's own main rule is met by the agent's version; the tools are not.
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=outofdate\n");
  const outcome_t installed = run({"--root", root, "--answer", "yes", "install", agent, source});
  EXPECT_EQ(installed.exit_code, 0) << installed.err;
  EXPECT_EQ(installed.out, "update_state=uptodate\n") << installed.err;
  EXPECT_NE(installed.err.find("update: asked to install 2.0 (files/readme.txt,files/licence.txt): yes"), std::string::npos) << installed.err;
  EXPECT_NE(installed.err.find("install: Executing user ok exit status 0"), std::string::npos) << installed.err;
  EXPECT_EQ(read_file(root + "/var/update/readme.txt.version"), "2.0\n");
  EXPECT_EQ(run({"--root", root, "check", agent, source}).out, "update_state=uptodate\n");
  EXPECT_EQ(run({"--root", root, "status", "--xml"}).out.rfind("<update-status result=\"uptodate\"", 0), 0u);

  const std::string socket = dir_.path("bridge.sock");
  // The group must be able to pass the directories on the way to its socket.
  std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  const pid_t daemon = fixtures::spawn_child(
      {CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket, "--socket-group", "daemon", "serve"}, -1,
      dir_.path("serve.log"));
  for (int i = 0; i < 250 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const outcome_t once = run({"--socket", socket, "status", "--once"}, "corvid-update-client");
  EXPECT_EQ(once.out.rfind("status: ", 0), 0u) << once.err;
  const std::string xml = run({"--socket", socket, "xml"}, "corvid-update-client").out;
  EXPECT_EQ(xml.rfind("<update-status result=", 0) + xml.rfind(">\n") + 2, xml.size()) << xml;  // one newline at the end
  // The client's install names no source, so it always ends in error.
  const outcome_t manual = run({"--socket", socket, "install"}, "corvid-update-client");
  EXPECT_EQ(manual.exit_code, 1);
  EXPECT_NE(manual.out.find("message: Download error: URI not specified"), std::string::npos) << manual.out << manual.err;
  // Code 8 bytes are a command line for the serving host.
  std::string hex;
  for (unsigned char c : "check " + source) hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
  EXPECT_EQ(run({"--socket", socket, "send", hex}, "corvid-update-client").out, "accepted\n");
  outcome_t after;
  for (int i = 0; i < 100 && after.out != "status: uptodate\n"; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    after = run({"--socket", socket, "status", "--once"}, "corvid-update-client");
  }
  EXPECT_EQ(after.exit_code, 0) << after.out;
  if (::getuid() == 0) {  // as other users: one outside the socket's group is told to join it; one with the group
    // as its own or among its extra groups reads and follows the status but commands nothing, and only a member
    // by its own group (or the user database) offers to answer
    const std::string refused = "not permitted: commands need root", before = read_file(root + "/var/update/corvid_update_status.xml");
    // group: the process's own group; "": nogroup, with the socket's group among its extra groups
    const struct { const char* group; std::vector<std::string> args; int exit_code; std::string says; } rows[] = {
        {"nogroup", {"status", "--once"}, 1, "must be a member of the group \"daemon\" that owns"},
        {"", {"status", "--once"}, 0, "status: uptodate"}, {"daemon", {"xml"}, 0, "<update-status result=\"uptodate\""},
        {"daemon", {"--yes", "status"}, 0, "status: uptodate"},
        {"", {"--yes", "status"}, 0, "the update will not ask this client: not permitted: only root"},
        {"", {"send", hex}, 1, refused}, {"daemon", {"send", hex}, 1, refused}, {"daemon", {"install"}, 1, refused},
        {"daemon", {"--yes", "check", source}, 1, refused}, {"", {"update", source}, 1, refused},
        {"daemon", {"unattended", "install"}, 1, refused},
    };
    for (const auto& row : rows) {
      std::vector<std::string> args{"--reuid=nobody", "--regid=" + std::string(*row.group ? row.group : "nogroup"),
                                    *row.group ? "--clear-groups" : "--groups=daemon", CORVID_BIN_DIR "/corvid-update-client",
                                    "--socket", socket};
      args.insert(args.end(), row.args.begin(), row.args.end());
      const outcome_t o = run(args, "/usr/bin/setpriv");
      EXPECT_NE((o.out + o.err).find(row.says), std::string::npos) << row.group << " " << row.args[0] << ": " << o.out << o.err;
      EXPECT_EQ(o.exit_code, row.exit_code) << row.group << " " << row.args[0] << ": " << o.err;
      EXPECT_EQ(o.err.find("will not ask") == std::string::npos, row.says.find("will not ask") == std::string::npos) << o.err;
    }
    EXPECT_EQ(read_file(root + "/var/update/corvid_update_status.xml"), before);  // nothing ran
    for (const char* code : {"4", "8"})
      EXPECT_NE(read_file(root + "/log/corvid_update.log").find(std::string("refused: command ") + code + " needs root"),
                std::string::npos) << code;
  }
  // The log tells URIs, commands and errors: its owner and the socket's group may read it, no one else.
  struct stat log{};
  ASSERT_EQ(::stat((root + "/log/corvid_update.log").c_str(), &log), 0);
  gid_t daemon_group = 0;
  EXPECT_TRUE(agent::group_id("daemon", daemon_group));
  EXPECT_EQ(std::make_pair(log.st_mode & 0777, log.st_gid), std::make_pair(0640u, daemon_group));
  // A second process on the same update directory names the first and
  // leaves its status, its log and its socket alone.
  const std::string status_before = read_file(root + "/var/update/corvid_update_status.xml"),
                    log_before = read_file(root + "/log/corvid_update.log");
  // Seen from another process namespace, where the holder cannot be told, it is not named.
  const std::string by = "is in use by process " + std::to_string(daemon);
  const std::tuple<std::string, std::vector<std::string>, std::string> seconds[] = {
      {"corvid-update", {"--root", root, "check", source}, by},
      {"corvid-update", {"--root", root, "--socket", socket + "2", "serve"}, by},
      {"/usr/bin/unshare", {"--pid", "--fork", "--mount-proc", CORVID_BIN_DIR "/corvid-update", "--root", root, "check", source},
       "is in use by another process"}};
  for (const auto& [program, args, says] : seconds) {
    if (program[0] == '/' && ::getuid() != 0) continue;  // a namespace needs root
    const outcome_t second = run(args, program);
    EXPECT_EQ(second.exit_code, 1);
    EXPECT_NE(second.err.find(says), std::string::npos) << second.err;
  }
  EXPECT_EQ(read_file(root + "/var/update/corvid_update_status.xml"), status_before);
  EXPECT_EQ(read_file(root + "/log/corvid_update.log"), log_before);
  EXPECT_FALSE(std::filesystem::exists(socket + "2"));
  fixtures::stop_child(daemon, 5000);

  EXPECT_FALSE(std::filesystem::exists(socket));
  EXPECT_NE(read_file(root + "/log/corvid_update.log").find("\tserve\tstopped\n"), std::string::npos);
  EXPECT_EQ(read_file(dir_.path("serve.log")), "");  // a daemon writes to its log only
}

// Whatever listens on its socket may order the client to run a command: it talks only to a daemon of root or
// its own user behind directories nobody else can change, runs a command only for a command it follows having
// offered to answer, and never on a no. The daemon's socket obeys the same rule.
TEST_F(HostTest, ClientObeysOnlyItsOwnDaemonAndOnlyWhileItAnswers) {
  if (::getuid() != 0) GTEST_SKIP() << "plays another user";
  const struct { mode_t mode; uid_t owner, server; std::vector<std::string> args; std::string says; } rows[] = {
      {0755, 0, 65534, {"status", "--once"}, "its server runs as uid 65534, neither root nor this user"},
      {0755, 0, 0, {"--yes", "status", "--once"}, "this client did not offer to answer the update"},
      {0755, 0, 0, {"--no", "status"}, "this client answers no"},
      {0777, 0, 0, {"--yes", "status"}, dir_.path("4 may be written by others than its owner")},
      {0755, 65534, 0, {"--yes", "status"}, dir_.path("5 belongs to user 65534")},
      {01777, 0, 65534, {"--yes", "status"}, dir_.path("6/var belongs to user 65534")},
  };
  std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  int n = 0;
  for (const auto& row : rows) {
    const std::string root = dir_.path(std::to_string(++n)), socket = root + "/var/corvid_bridge.sock";
    std::filesystem::create_directories(root);
    ASSERT_EQ(::chmod(root.c_str(), row.mode) | ::chown(root.c_str(), row.owner, 0), 0);
    std::vector<std::string> fake{"/usr/bin/python3", "-c", fake_peer, "serve", socket, std::to_string(row.server)};
    if (row.mode & S_ISVTX) fake.insert(fake.begin(), {"/usr/bin/setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"});
    const pid_t fake_pid = fixtures::spawn_child(fake, -1, root + ".log");
    for (int i = 0; i < 250 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::vector<std::string> args = row.args;
    args.insert(args.begin(), {"--root", root});
    const outcome_t o = run(args, "corvid-update-client");
    fixtures::stop_child(fake_pid, 5000);
    EXPECT_NE(o.err.find(row.says), std::string::npos) << row.says << ": " << o.err;
    EXPECT_FALSE(std::filesystem::exists(socket + ".ran")) << row.says;
  }
  const outcome_t daemon = run({"5", CORVID_BIN_DIR "/corvid-update", "--root", dir_.path("agent"), "--socket",
                                dir_.path("4/var/d.sock"), "serve"}, "/usr/bin/timeout");
  EXPECT_NE(daemon.err.find(dir_.path("4 may be written by others than its owner")), std::string::npos) << daemon.err;
}

// A stop starts nothing more: not at the daemon's question, which it
// answers no, nor between two rules of a one-shot hit by Ctrl-C, where the
// running command finishes. The files stay downloaded; the next install
// completes them.
TEST_F(HostTest, StopStartsNoFurtherCommand) {
  serve({"repo", "agent"});
  const std::string root = dir_.path("agent"), source = server_.url("/repo/"), socket = dir_.path("bridge.sock");
  std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  const pid_t daemon = fixtures::spawn_child({CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket,
      "--socket-group", "daemon", "--question-timeout", "1", "serve"}, -1, dir_.path("serve.log"));
  agent::bridge_client_t client;
  std::string error, reply;
  for (int i = 0; i < 250 && !client.connect(socket, error); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  // A member who offers and never answers holds a question for the daemon's limit, then it is a no; with
  // the update's own time the limit is that time and more, and root's client offering takes it over.
  const std::string member_log = dir_.path("member.log"), log = root + "/log/corvid_update.log";
  fixtures::spawn_child({"/usr/bin/setpriv", "--reuid=nobody", "--regid=daemon", "--clear-groups",
      "/usr/bin/python3", "-c", fake_peer, "member", socket}, -1, member_log);
  wait_for(member_log, "offered");
  bool accepted = false, asked = false;
  ASSERT_TRUE(client.call(8, "install " + source, accepted, reply, nullptr, error) && accepted) << error;
  EXPECT_TRUE(wait_for(root + "/var/update/corvid_update_status.xml", "Canceled by user"));
  fixtures::write_file(server_.root() + "/repo/update.ini", read_file(server_.root() + "/repo/update.ini") + "timeout=600\n");
  ASSERT_TRUE(client.call(8, "install " + source, accepted, reply, nullptr, error) && accepted) << error;
  ASSERT_TRUE(wait_for(member_log, "asked", 3));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));  // past the daemon's own limit
  ASSERT_TRUE(client.offer_answers(error)) << error;
  for (int i = 0; i < 200 && !asked && client.wait(50, [&](uint32_t, std::string& body) {
    fixtures::stop_child(daemon, 10000);  // at the question, unanswered
    body = "\x01";
    return asked = true;
  }, error); ++i) {}
  EXPECT_TRUE(asked) << error;
  EXPECT_NE(read_file(log).find(") by client "), std::string::npos);
  const std::string status = read_file(root + "/var/update/corvid_update_status.xml");
  EXPECT_NE(status.find("Update stopped: the module is stopping"), std::string::npos) << status;
  EXPECT_NE(status.find("state=\"downloaded\""), std::string::npos) << status;
  EXPECT_FALSE(std::filesystem::exists(root + "/var/update/corvid-tool.sh.version"));
  EXPECT_EQ(run({"--root", root, "--answer", "yes", "install", server_.url("/agent/"), source}).out, "update_state=uptodate\n");

  // A command that stops the one-shot finishes; what would follow it never starts: rule 2's command after
  // rule 1's, the next command of a list, the user's command after the service's.
  for (const std::string name : {"rules", "list", "user"}) {
    const std::string stops = "sh -c \"kill -INT $PPID; sleep 0.3; echo one > " + dir_.path(name) + ".ran\"\n",
                      follows = "sh -c \"echo two >> " + dir_.path(name) + ".ran\"\n", indexed = "[corvid]\nversion.1=1\nfile.1=a.txt\n";
    const std::map<std::string, std::string> descriptions = {
        {"rules", indexed + "exec_wait.1=1\nexec.1=" + stops + "version.2=1\nfile.2=b.txt\nexec_wait.2=1\nexec.2=" + follows},
        {"list", "[corvid.file=a.txt]\nupdate_version=1\nexec=" + stops + "exec=" + follows},
        {"user", indexed + "exec_sys_wait.1=1\nexec_sys.1=" + stops + "exec_user_wait.1=1\nexec_user.1=" + follows}};
    ASSERT_TRUE(server_.put_file(name + "/update.ini", descriptions.at(name)) &&
                server_.put_file(name + "/a.txt", "a") && server_.put_file(name + "/b.txt", "b"));
    const std::string other = dir_.path(name);
    EXPECT_EQ(run({"--root", other, "--no-verify", "--answer", "yes", "install", server_.url("/" + name + "/")}).exit_code, 130);
    const std::string status = read_file(other + "/var/update/corvid_update_status.xml");
    EXPECT_EQ(read_file(other + ".ran"), "one\n") << name << ": " << status;
    EXPECT_NE(status.find("module is stopping"), std::string::npos) << status;
  }
}

// Whoever answers the install question: a line that says yes, or the end of
// the update's own time for it, is a yes; an empty line, Ctrl-C, the end of
// input, a closed terminal (also for a client that outlives it) or a client
// that goes away is a no, and nothing runs. With no client the update goes on
// and the user's command fails; a member of the socket's group runs it as
// itself. The one-shot takes Ctrl-C or a closed terminal as a stop.
TEST_F(HostTest, OnlyAYesOrTheUpdatesOwnTimeInstalls) {
  if (::getuid() != 0) GTEST_SKIP() << "plays another user";
  serve({});
  const std::string root = dir_.path("agent"), socket = dir_.path("bridge.sock"), ran = dir_.path("ran/log");
  std::filesystem::permissions(dir_.path(""), std::filesystem::perms::others_exec, std::filesystem::perm_options::add);
  std::filesystem::create_directories(dir_.path("ran"));
  dir_.write("ran/log", "");
  std::filesystem::permissions(ran, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write |
                                        std::filesystem::perms::others_read | std::filesystem::perms::others_write);
  const std::string ini = "[corvid]\nmessage=Q\nfile.1=a.txt\nexec_sys.1=sh -c \"echo sys >> " + ran +
                          "\"\nexec_sys_wait.1=1\nexec_user.1=sh -c \"id -u >> " + ran + "\"\nexec_user_wait.1=1\n";
  ASSERT_TRUE(server_.put_file("ask/a.txt", "a"));
  const pid_t daemon = fixtures::spawn_child({CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket,
      "--socket-group", "daemon", "--no-verify", "serve"}, -1, dir_.path("serve.log"));
  for (int i = 0; i < 250 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const std::string client = CORVID_BIN_DIR "/corvid-update-client --socket " + socket + " update " + server_.url("/ask/");
  const std::string one_shot = CORVID_BIN_DIR "/corvid-update --root " + dir_.path("one") + " --no-verify --answer ask install " +
                               server_.url("/ask/");
  const auto tmux = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"-S", dir_.path("tmux.sock"), "-f", "/dev/null"});
    return run(args, "/usr/bin/tmux");
  };
  const auto until = [](const std::function<bool()>& done) {
    for (int i = 0; i < 500 && !done(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  const struct {
    std::string terminal;           // what runs on a terminal, and is asked there
    std::vector<std::string> keys;  // typed at the question; "kill" closes the terminal
    std::string ran, says;          // what the commands wrote ("sys", the user's id), the status
    const char* timeout = "0";      // the update's own time for the question
  } rows[] = {
      {client, {"y", "Enter"}, "sys\n0\n", "result=\"installed\""},
      {client, {"yes", "Enter"}, "sys\n0\n", "result=\"installed\""}, {client, {"Enter"}, "", "Canceled by user"},
      {client, {"C-c"}, "", "Canceled by user"}, {client, {"C-d"}, "", "Canceled by user"},
      {client, {"kill"}, "", "Canceled by user"}, {"trap '' HUP; exec " + client, {"kill"}, "", "Canceled by user"},
      {client, {}, "sys\n0\n", "result=\"installed\"", "1"},
      {"", {}, "sys\n", "send notification to GUI failed"},  // no client offered
      {"member", {}, "sys\n65534\n", "result=\"installed\""},
      {one_shot, {"C-c"}, "", "The module is stopping, not started: installation"},
      {one_shot, {"kill"}, "", "result=\"error\""},  // the stop, or the terminal's end first: a no either way
  };
  int version = 1;  // a new one each time, for the question to come again
  for (const auto& row : rows) {
    const std::string& what = row.terminal + " " + (row.keys.empty() ? "" : row.keys[0]);
    ASSERT_TRUE(server_.put_file("ask/update.ini", ini + "version.1=" + std::to_string(++version) + "\ntimeout=" + row.timeout + "\n"));
    if (row.terminal.empty() || row.terminal == "member") {
      pid_t member = -1;
      if (!row.terminal.empty()) {
        member = fixtures::spawn_child({"/usr/bin/setpriv", "--reuid=nobody", "--regid=daemon", "--clear-groups",
            CORVID_BIN_DIR "/corvid-update-client", "--socket", socket, "--yes", "status", "--watch"}, -1, dir_.path("member.log"));
        ASSERT_TRUE(wait_for(dir_.path("member.log"), "status: "));  // it has offered
      }
      run({"--socket", socket, "update", server_.url("/ask/")}, "corvid-update-client");
      fixtures::stop_child(member, 5000);
    } else {
      tmux({"new-session", "-d", "-s", "q", "-x", "150", "-y", "40", row.terminal});
      std::string screen;
      until([&] { return (screen = tmux({"capture-pane", "-p", "-t", "q"}).out).find("Install now?") != std::string::npos; });
      // The question shows what is ready and what each side will run.
      EXPECT_NE(screen.find("  ready:\n    /"), std::string::npos) << screen;
      EXPECT_NE(screen.find("/var/update/a.txt\n  the service runs: sh -c \"echo sys >> " + ran + "\"\n  you run: sh -c \"id -u"),
                std::string::npos) << screen;
      std::vector<std::string> keys{"send-keys", "-t", "q"};
      keys.insert(keys.end(), row.keys.begin(), row.keys.end());
      if (row.keys == std::vector<std::string>{"kill"}) keys = {"kill-session", "-t", "q"};
      if (!row.keys.empty()) tmux(keys);
      until([&] { return tmux({"has-session", "-t", "q"}).exit_code != 0; });
    }
    std::string status;  // once the run has ended: the daemon's, or the one-shot's when it let go of its directory
    if (row.terminal.find("--root") == std::string::npos) {
      run({"--socket", socket, "status"}, "corvid-update-client");
      status = run({"--socket", socket, "xml"}, "corvid-update-client").out;
    } else {
      until([&] { const outcome_t o = run({"--root", dir_.path("one"), "status", "--xml"}); status = o.out; return o.exit_code == 0; });
    }
    EXPECT_NE(status.find(row.says), std::string::npos) << what << ": " << status;
    EXPECT_EQ(read_file(ran), row.ran) << what;
    fixtures::write_file(ran, "");
  }
  tmux({"kill-server"});
  fixtures::stop_child(daemon, 5000);
}

// Over HTTPS the server must show a certificate for its address from the
// authority named by --ca-file; another authority or another name fails the
// source with libcurl's text, and a CA file that cannot be read stops the
// host at once. As root the other authority is also in the system's directory
// of authorities (a private mount over the one Debian's libcurl reads), which
// the CA file replaces.
TEST_F(HostTest, TrustsOnlyTheNamedAuthorityOverHttps) {
  const std::string pki = dir_.path("pki"), system = pki + "/system";
  std::filesystem::create_directories(system);
  ASSERT_TRUE(fixtures::make_certificate(pki, "good", "ours", "IP:127.0.0.1") &&
              fixtures::make_certificate(pki, "named", "ours", "DNS:other.example") &&
              fixtures::make_certificate(pki, "stranger", "theirs", "IP:127.0.0.1"));
  std::vector<std::string> host{CORVID_BIN_DIR "/corvid-update"};
  if (::getuid() == 0 && std::system(("cp " + pki + "/theirs-ca.pem " + system + " && openssl rehash " + system).c_str()) == 0)
    host = {"/usr/bin/unshare", "-m", "sh", "-c", "mount --bind \"$0\" /etc/ssl/certs && exec \"$@\"", system, host[0]};
  const struct { const char *cert, *says; } rows[] = {
      {"good", "update_state=download\n"},
      {"named", "no alternative certificate subject name matches target host name '127.0.0.1'"},
      {"stranger", "SSL certificate problem: unable to get local issuer certificate"}};
  for (const auto& row : rows) {
    fixtures::nginx_server_t server;
    server.use_tls(pki + "/" + row.cert + ".pem", pki + "/" + row.cert + ".key");
    std::string error;
    ASSERT_TRUE(server.start(error)) << error;
    std::filesystem::copy(CORVID_SOURCE_DIR "/examples/repo", server.root() + "/repo", std::filesystem::copy_options::recursive);
    std::vector<std::string> args = host;
    args.insert(args.end(), {"--root", dir_.path(row.cert), "--ca-file", pki + "/ours-ca.pem", "download", server.url("/repo/")});
    const outcome_t o = run(args, "/usr/bin/env");
    EXPECT_NE(o.out.find(row.says), std::string::npos) << row.cert << ": " << o.out << o.err;
  }
  const outcome_t missing = run({"--root", dir_.path("x"), "--ca-file", pki + "/none.pem", "check", "https://127.0.0.1:1/"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("cannot read the CA file"), std::string::npos) << missing.err;
}

// With a trusted key a source is used only with its valid signature; one
// that fails changes nothing on disk but the status: neither the saved
// description, nor the serials, nor what was downloaded.
TEST_F(HostTest, UsesOnlySignedSourcesAndRefusesWithoutTouchingTheDisk) {
  serve({"repo"});
  const std::string root = dir_.path("agent"), update = root + "/var/update/", source = server_.url("/repo/");
  const std::string ini = server_.root() + "/repo/update.ini", signed_ini = read_file(ini);
  std::filesystem::create_directories(root + "/etc/update-keys");  // the default place
  std::filesystem::create_directories(update);
  ASSERT_EQ(run({"keygen", "--type", "gost2012", dir_.path("release")}, "corvid-update-sign").exit_code, 0);
  std::filesystem::copy(dir_.path("release.pub"), root + "/etc/update-keys/");
  const auto sign = [&](const char* serial) {
    run({"sign", "--key", dir_.path("release.key"), "--serial", serial, "--expires", "30", ini}, "corvid-update-sign");
  };
  const auto serve_ini = [&](const std::string& bytes) { fixtures::write_file(ini, bytes); };
  const auto serve_sig = [&](const std::string& bytes) { fixtures::write_file(ini + ".sig", bytes); };
  const auto on_disk = [&] {  // what a refusal must leave as it was
    std::map<std::string, std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(update)) {
      const std::string name = e.path().filename();
      if (name.rfind("corvid_update_status.xml", 0) != 0) files[name] = read_file(e.path());
    }
    return files;
  };
  std::string serial_5_sig, expired_sig, reason;
  update::secret_key_t key;
  ASSERT_TRUE(update::read_secret_key(read_file(dir_.path("release.key")), key, reason)) << reason;
  const update::packed_time_t yesterday = update::packed_from_time(update::packed_to_time(update::packed_now()) - 86400);
  ASSERT_TRUE(update::sign_description(key, signed_ini, 8, yesterday, expired_sig));
  const std::string no_hash = "[corvid]\nversion.1=1\nfile.1=files/readme.txt\nexec.1=true\n";
  const struct { std::function<void()> serve; std::vector<std::string> args; std::string says; bool changes; } rows[] = {
      {[&] { sign("5"), serial_5_sig = read_file(ini + ".sig"); }, {"download"}, "update_state=download\n", true},
      {[&] { serve_ini(signed_ini + " "); }, {"download"}, "Signature check failed: digest mismatch: update.ini hashes to", false},
      {[&] { serve_ini(signed_ini), sign("7"); }, {"check"}, "update_state=download\n", true},
      {[&] { serve_sig(serial_5_sig); }, {"check"}, "Signature check failed: older serial: 5 is below 7", false},
      {[&] { serve_sig(expired_sig); }, {"check"}, "Signature check failed: expired at ", false},
      {[&] { std::filesystem::remove(ini + ".sig"); }, {"check"}, "update_msg=Signature check failed: missing update.ini.sig\n", false},
      {[&] { serve_sig(std::string(5000, 'x')); }, {"check"}, "malformed update.ini.sig: larger than 4096 bytes", false},
      {[&] { fixtures::write_file(update + "corvid_update_serials", "corvid-update-serials 1\n7\n"), sign("7"); }, {"check"},
       "Signature check failed: " + update + "corvid_update_serials is damaged: line 2", false},
      {[&] { std::filesystem::remove(update + "corvid_update_serials"), serve_ini(no_hash), sign("9"); }, {"--no-verify", "check"},
       "no hash for file 'readme.txt': a signed description must pin every file", true},
  };
  for (const auto& row : rows) {
    row.serve();
    const auto before = on_disk();
    std::vector<std::string> args{"--root", root};
    args.insert(args.end(), row.args.begin(), row.args.end());
    args.push_back(source);
    const outcome_t o = run(args);
    EXPECT_NE(o.out.find(row.says), std::string::npos) << row.says << ": " << o.out << o.err;
    EXPECT_TRUE(row.changes || on_disk() == before) << row.says;
  }
  EXPECT_EQ(read_file(update + "readme.txt"), read_file(CORVID_SOURCE_DIR "/examples/repo/files/readme.txt"));
  EXPECT_EQ(read_file(update + "corvid_update_serials"), "corvid-update-serials 1\n9 " + source + "\n");
  // No key is no check, and the log says so once per command.
  const std::string plain = dir_.path("plain");
  std::filesystem::create_directories(plain + "/none");
  EXPECT_EQ(run({"--root", plain, "--trusted-keys", plain + "/none", "--no-verify", "check", source}).out, "update_state=outofdate\n");
  const std::string log = read_file(plain + "/log/corvid_update.log"), notice = "\t366\tDescriptions are not signature-checked";
  EXPECT_NE(log.find(notice), std::string::npos) << log;
  EXPECT_EQ(log.find(notice), log.rfind(notice));
  const outcome_t typo = run({"--root", root, "--trusted-keys", root + "/etc/update-key", "check", source});
  EXPECT_EQ(typo.exit_code, 1);
  EXPECT_NE(typo.err.find("trusted keys: cannot read the directory " + root + "/etc/update-key"), std::string::npos) << typo.err;
  // A server that drips the description or its signature, faster than the low-speed limit, is cut in time.
  for (const std::string& dripped : {ini, ini + ".sig"}) {
    fixtures::fault_server_t drip;
    ASSERT_TRUE(drip.start(dripped, {}, "trickle&chunk=1&interval_ms=50", server_.root()));
    const outcome_t o = run({"--root", root, "--no-verify", "--description-timeout", "1", "check", drip.url("/repo/")});
    EXPECT_NE(o.out.find("Operation timed out after"), std::string::npos) << dripped << ": " << o.out;
  }
}

// The client's named commands run through the daemon with its sources file,
// read anew by every command, follow their own run and exit as the one-shot
// host does. A sources file or a policy gone wrong, or no daemon, fails with
// its reason on stderr and in the log, and the status stays; both programs
// tell it as the same JSON. The log rotates under a running install without
// losing or tearing a line.
TEST_F(HostTest, NamedCommandsRunTheSourcesFileThroughTheDaemon) {
  serve({"repo", "agent"});
  const std::string root = dir_.path("agent"), socket = dir_.path("bridge.sock"), log = root + "/log/corvid_update.log";
  const std::string sources = dir_.write("sources", "# ours\n" + server_.url("/agent/") + "\n " + server_.url("/repo/") + "\n");
  ASSERT_TRUE(server_.put_file("roll/update.ini", "[corvid.file=f]\napply_if.rollout=50\nupdate_version=1\n"
                                                  "download_file=$(null)\nexec=x\n") &&
              server_.put_file("broken/b.txt", "b") &&
              server_.put_file("broken/update.ini", "[corvid]\nversion.1=1\nfile.1=b.txt\nexec_user.1=/nonexistent/x\n") &&
              server_.put_file("slow/a.txt", "a") &&  // an install that ends when the test lets it
              server_.put_file("slow/update.ini", "[corvid]\nversion.1=1\nfile.1=a.txt\nexec_wait.1=1\nexec.1=sh -c \"while [ ! -e " +
                                   dir_.path("go") + " ]; do sleep 0.05; done; echo 1 > $update_path/a.txt.version\"\n"));
  const pid_t daemon = fixtures::spawn_child({CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket,
                                              "--sources", sources, "--no-verify", "--machine-id-file", dir_.path("id"),
                                              "serve"}, -1, dir_.path("serve.log"));
  for (int i = 0; i < 250 && !std::filesystem::exists(socket); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  const auto client = [&](std::vector<std::string> args, const fixtures::scratch_dir_t* outputs = nullptr) {
    args.insert(args.begin(), {"--socket", socket, "--log", log});
    return run(args, "corvid-update-client", outputs);
  };
  const auto json = [&](const outcome_t& o) { return nlohmann::json::parse(o.out, nullptr, false); };
  nlohmann::json last;
  const std::tuple<std::string, std::vector<std::string>, int, std::string> rows[] = {  // sources ("": as they
      // were), arguments, exit status, what it says
      {"", {"check"}, 0, "status: outofdate\n"}, {"", {"--yes", "update"}, 0, "status: uptodate\n"},
      {"", {"check", server_.url("/none/")}, 1, "status: error\n"},
      {"", {"check", server_.url("/roll/")}, 1, "message: Parse 'update.ini' error: cannot read the machine's identity from " + dir_.path("id")},
      {"", {"--yes", "update", server_.url("/broken/")}, 1, "error: cannot start: No such file or directory"},
      {"", {"--yes", "unattended", "install"}, 0, "status: uptodate\n"},
      {read_file(sources) + "ftp://x/\n", {"check"}, 1, "refused check: sources file " + sources + ": line 4: not an http"},
      {"# none\n", {"unattended", "check"}, 1, "refused check: no source in the sources file " + sources},
      {"", {"unattended", "sometimes"}, 2, "unknown unattended policy \"sometimes\": none, check, download or install"},
      {"", {"unattended", "none"}, 0, "unattended: the policy is none, nothing runs\n"},
      {"", {"check", "http://a b/"}, 2, "a URI with a blank or a control character cannot be sent: http://a b/"},
      {"", {"--log", sources + "/x", "unattended", "none"}, 0, "cannot open the log file " + sources + "/x"},
      {"", {"status"}, 0, "status: uptodate\n"},  // idle: nothing to follow
  };
  for (const auto& [text, args, exit_code, says] : rows) {
    if (!text.empty()) fixtures::write_file(sources, text);
    const outcome_t o = client(args), status = client({"status", "--json"});
    EXPECT_EQ(o.exit_code, exit_code) << args.back() << ": " << o.out << o.err;
    EXPECT_NE((o.out + o.err).find(says), std::string::npos) << args.back() << ": " << o.out << o.err;
    if (o.out.rfind("status: ", 0) == 0) last = json(status);  // it ran: its outcome is the status now
    EXPECT_EQ(json(status), last) << args.back();  // a refusal leaves the status as it was
  }
  EXPECT_EQ(last["id"].get<std::string>().rfind("unattended-", 0), 0u) << last;
  EXPECT_NE(read_file(log).find("\t365\tclient command\t--cmdid client-"), std::string::npos);
  EXPECT_NE(read_file(log).find("\t365\tclient\tunknown unattended policy"), std::string::npos);
  EXPECT_NE(run({"--root", dir_.path("one"), "--sources", sources, "check"}).err.find("no source in"), std::string::npos);
  EXPECT_NE(read_file(dir_.path("one/log/corvid_update.log")).find("\t365\tno source in the sources file"), std::string::npos);

  // Two rotations while an install command runs; meanwhile a check waits its
  // turn, and a later download takes its place.
  fixtures::write_file(sources, server_.url("/slow/") + "\n");
  const auto later = [&](const std::vector<std::string>& args) {  // outputs of its own, as they run at once
    return std::async(std::launch::async, [&client, args] { const fixtures::scratch_dir_t outputs; return client(args, &outputs); });
  };
  EXPECT_EQ(client({"send", "7365727665"}).out, "refused\n");  // "serve": a command line, but not one that runs
  EXPECT_TRUE(wait_for(log, "not a command that runs"));
  EXPECT_EQ(client({"send", "2020696e7374616c6c2020"}).out, "accepted\n");  // "  install  ", not followed
  wait_for(log, "while [ ! -e");
  auto replaced = later({"check", server_.url("/slow/?b")});
  wait_for(log, "/slow/?b\n");
  auto download = later({"download", server_.url("/slow/?c")});
  wait_for(log, "/slow/?c\n");
  for (const char* rotated : {".2", ".1"}) {
    std::filesystem::rename(log, log + rotated);
    ::kill(daemon, SIGHUP);
    wait_for(log, "\tserve\tlog reopened\n");
  }
  dir_.write("go", "");
  EXPECT_NE(replaced.get().err.find("its run is not in the status: a later command took its place"), std::string::npos);
  EXPECT_EQ(download.get().out, "status: uptodate\n");
  EXPECT_NE(read_file(log + ".2").find("while [ ! -e"), std::string::npos);
  EXPECT_NE(read_file(log).find("\tdone\tcommand: install, result: uptodate\n"), std::string::npos);
  std::istringstream lines(read_file(log + ".2") + read_file(log + ".1") + read_file(log));
  int reopened = 0;  // each line whole: one time, one id, and its texts
  for (std::string line; std::getline(lines, line); reopened += line.find("\tserve\tlog reopened") != std::string::npos)
    EXPECT_TRUE(line.size() > 29 && line[10] == 'T' && line.compare(23, 4, "Z\t36") == 0 && line[28] == '\t' &&
                line.find("Z\t36", 24) == std::string::npos) << line;
  EXPECT_EQ(reopened, 2);

  const outcome_t served = client({"status", "--json"});
  fixtures::stop_child(daemon, 5000);
  const outcome_t down = client({"unattended", "check"}), host = run({"--root", root, "status", "--json"});
  EXPECT_EQ(down.exit_code, 1);
  EXPECT_NE(read_file(log).find("\t365\tclient\tcannot connect to " + socket), std::string::npos);
  EXPECT_EQ(json(host), json(served));  // the module's record and the one read back from its XML
  EXPECT_EQ(json(host)["files"][0]["update_version"], "1") << host.out;
  EXPECT_EQ(json(host)["message"], "") << host.out;
  // Another reader of JSON takes what the client wrote.
  dir_.write("status.json", served.out);
  const auto python = fixtures::run_program(
      {"/usr/bin/python3", "-c", "import json,sys; s=json.load(open(sys.argv[1])); print(s['result'], len(s['files']))",
       dir_.path("status.json")}, dir_);
  EXPECT_EQ(python.out, json(served)["result"].get<std::string>() + " " + std::to_string(json(served)["files"].size()) +
                            "\n") << python.err;
}

// The package's programs, unpacked away from the build tree, find their libraries in its own layout.
using PackageTest = HostTest;

TEST_F(PackageTest, UnpackedHostChecksAgainstNginx) {
  const std::string root = dir_.path("root"), host = root + "/usr/sbin/corvid-update";
  ASSERT_EQ(std::system(("dpkg-deb -x '" CORVID_PACKAGE_FILE "' '" + root + "'").c_str()), 0);
  EXPECT_NE(run({"--help"}, host).out.find("--socket-group NAME"), std::string::npos);
  for (const char* program : {"/usr/sbin/corvid-update", "/usr/bin/corvid-update-client", "/usr/bin/corvid-update-sign"})
    EXPECT_FALSE(has_empty_runpath_entry(root + program)) << program;
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  ASSERT_TRUE(server.put_file("repo/update.ini", read_file(CORVID_SOURCE_DIR "/examples/repo/update.ini")));
  // As the unit runs it: the package's keys directory is there, and empty.
  EXPECT_EQ(run({"--root", dir_.path("agent"), "--trusted-keys", root + "/etc/corvid-update/update-keys", "check",
                 server.url("/repo/")}, host).out, "update_state=outofdate\n");
  EXPECT_NE(run({"--help"}, root + "/usr/bin/corvid-update-sign").out.find("keygen --type"), std::string::npos);
}

}  // namespace
