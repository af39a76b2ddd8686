// The built corvid-update, run as a user would run it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "agent/bridge.h"
#include "fixtures/fault_server.h"
#include "fixtures/nginx_server.h"
#include "support/key_file.h"
#include "support/signature_file.h"

namespace {

using fixtures::outcome_t;
using fixtures::read_file;

class HostTest : public ::testing::Test {
 protected:
  // Runs the host, or another program, with its per-user state kept inside the test's directory.
  outcome_t run(const std::vector<std::string>& args, const std::string& program = "corvid-update") {
    std::vector<std::string> argv{"/usr/bin/env", "XDG_STATE_HOME=" + dir_.path("state"),
                                  program[0] == '/' ? program : CORVID_BIN_DIR "/" + program};
    argv.insert(argv.end(), args.begin(), args.end());
    return fixtures::run_program(argv, dir_);
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
  EXPECT_EQ(run({"--socket", socket, "xml"}, "corvid-update-client").out.rfind("<update-status result=", 0), 0u);
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
  if (::getuid() == 0) {  // as other users: one outside the socket's group is told to join it, a member reads
    for (const auto& [groups, command, says] :  // the status but may not command the daemon
         {std::tuple{"--clear-groups", "status", "must be a member of the group \"daemon\" that owns"},
          std::tuple{"--groups=daemon", "status", "status: uptodate"},
          std::tuple{"--groups=daemon", "send", "not permitted: commands need root"}}) {
      std::vector<std::string> args{"--reuid=nobody", "--regid=nogroup", groups,
                                    CORVID_BIN_DIR "/corvid-update-client", "--socket", socket, command};
      args.push_back(std::string(command) == "send" ? hex : "--once");
      const outcome_t o = run(args, "/usr/bin/setpriv");
      EXPECT_NE((o.out + o.err).find(says), std::string::npos) << groups << ": " << o.out << o.err;
    }
    EXPECT_NE(read_file(root + "/log/corvid_update.log").find("refused: command 8 needs root"), std::string::npos);
  }
  // A second process on the same update directory names the first and
  // leaves its status, its log and its socket alone.
  const std::string status_before = read_file(root + "/var/update/corvid_update_status.xml"),
                    log_before = read_file(root + "/log/corvid_update.log");
  for (const auto& args : {std::vector<std::string>{"--root", root, "check", source},
                           std::vector<std::string>{"--root", root, "--socket", socket + "2", "serve"}}) {
    const outcome_t second = run(args);
    EXPECT_EQ(second.exit_code, 1);
    EXPECT_NE(second.err.find("is in use by process " + std::to_string(daemon)), std::string::npos) << second.err;
  }
  EXPECT_EQ(read_file(root + "/var/update/corvid_update_status.xml"), status_before);
  EXPECT_EQ(read_file(root + "/log/corvid_update.log"), log_before);
  EXPECT_FALSE(std::filesystem::exists(socket + "2"));
  fixtures::stop_child(daemon, 5000);
  EXPECT_FALSE(std::filesystem::exists(socket));
  EXPECT_NE(read_file(root + "/log/corvid_update.log").find("\tserve\tstopped\n"), std::string::npos);
  EXPECT_EQ(read_file(dir_.path("serve.log")), "");  // a daemon writes to its log only
}

// A stop starts nothing more: not at the daemon's question, which it
// answers no, nor between two rules of a one-shot hit by Ctrl-C, where the
// running command finishes. The files stay downloaded; the next install
// completes them.
TEST_F(HostTest, StopStartsNoFurtherCommand) {
  serve({"repo", "agent"});
  const std::string root = dir_.path("agent"), source = server_.url("/repo/"), socket = dir_.path("bridge.sock");
  const pid_t daemon = fixtures::spawn_child(
      {CORVID_BIN_DIR "/corvid-update", "--root", root, "--socket", socket, "serve"}, -1, dir_.path("serve.log"));
  agent::bridge_client_t client;
  std::string error, reply;
  for (int i = 0; i < 250 && !client.connect(socket, error); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_TRUE(client.offer_answers(error)) << error;
  bool accepted = false, asked = false;
  ASSERT_TRUE(client.call(8, "install " + source, accepted, reply, nullptr, error) && accepted) << error;
  while (!asked && client.wait(50, [&](uint32_t, std::string& body) {
    fixtures::stop_child(daemon, 10000);  // at the question, unanswered
    body = "\x01";
    return asked = true;
  }, error)) {}
  EXPECT_TRUE(asked) << error;
  const std::string status = read_file(root + "/var/update/corvid_update_status.xml");
  EXPECT_NE(status.find("Update stopped: the module is stopping"), std::string::npos) << status;
  EXPECT_NE(status.find("state=\"downloaded\""), std::string::npos) << status;
  EXPECT_FALSE(std::filesystem::exists(root + "/var/update/corvid-tool.sh.version"));
  EXPECT_EQ(run({"--root", root, "--answer", "yes", "install", server_.url("/agent/"), source}).out, "update_state=uptodate\n");

  // Rule 1's command stops the one-shot and goes on; rule 2's never starts.
  const std::string two_rules = "[corvid]\nversion.1=1\nfile.1=a.txt\nexec_wait.1=1\n"
      "exec.1=sh -c \"kill -INT $PPID; sleep 0.3; echo [$update_path] > $update_path/one\"\n"
      "version.2=1\nfile.2=b.txt\nexec_wait.2=1\nexec.2=sh -c \"echo [$update_path] > $update_path/two\"\n";
  ASSERT_TRUE(server_.put_file("two/update.ini", two_rules) && server_.put_file("two/a.txt", "a") &&
              server_.put_file("two/b.txt", "b"));
  const std::string other = dir_.path("other");
  EXPECT_EQ(run({"--root", other, "--no-verify", "--answer", "yes", "install", server_.url("/two/")}).exit_code, 130);
  EXPECT_EQ(read_file(other + "/var/update/one"), "[" + other + "/var/update]\n");
  EXPECT_FALSE(std::filesystem::exists(other + "/var/update/two"));
  EXPECT_NE(read_file(other + "/var/update/corvid_update_status.xml").find("Update stopped"), std::string::npos);
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
  const struct {
    const char* cert;
    const char* says;
  } rows[] = {{"good", "update_state=download\n"},
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
      if (name.rfind("corvid_update_status.xml", 0) != 0 && name != "corvid_update.lock") files[name] = read_file(e.path());
    }
    return files;
  };
  std::string serial_5_sig, expired_sig, reason;
  update::secret_key_t key;
  ASSERT_TRUE(update::read_secret_key(read_file(dir_.path("release.key")), key, reason)) << reason;
  const update::packed_time_t yesterday = update::packed_from_time(update::packed_to_time(update::packed_now()) - 86400);
  ASSERT_TRUE(update::sign_description(key, signed_ini, 8, yesterday, expired_sig));
  const std::string no_hash = "[corvid]\nversion.1=1\nfile.1=files/readme.txt\nexec.1=true\n";
  const struct {
    std::function<void()> serve;
    std::vector<std::string> args;
    std::string says;
    bool changes;
  } rows[] = {
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
    if (!row.changes) {
      EXPECT_EQ(on_disk(), before) << row.says;
    }
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

// The package's programs, unpacked away from the build tree, find their libraries in its own layout.
using PackageTest = HostTest;

TEST_F(PackageTest, UnpackedHostChecksAgainstNginx) {
  const std::string root = dir_.path("root"), host = root + "/usr/sbin/corvid-update";
  ASSERT_EQ(std::system(("dpkg-deb -x '" CORVID_PACKAGE_FILE "' '" + root + "'").c_str()), 0);
  EXPECT_NE(run({"--help"}, host).out.find("--socket-group NAME"), std::string::npos);
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
