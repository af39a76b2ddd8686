// The built corvid-update-sign, run as a publisher would run it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <tuple>

#include "fixtures/nginx_server.h"

namespace {

using fixtures::read_file;

class SignTest : public ::testing::Test {
 protected:
  // Runs the program in the test's directory: exit status, standard output and error together.
  std::pair<int, std::string> run(const std::string& args) {
    const auto o = fixtures::run_program(
        {"/bin/sh", "-c", "cd '" + dir_.path() + "' && exec " CORVID_BIN_DIR "/corvid-update-sign " + args + " 2>&1"}, dir_);
    return {o.exit_code, o.out};
  }
  fixtures::scratch_dir_t dir_;
};

TEST_F(SignTest, SignsAndVerifiesWithBothKindsAndRefusesWhatIsWrong) {
  dir_.write("update.ini", "[corvid]\nupdate_version=2.0\n");
  std::filesystem::create_directories(dir_.path("keys/other"));
  for (const char* type : {"ed25519", "gost2012"}) {
    ASSERT_EQ(run(std::string("keygen --type ") + type + " " + type).first, 0);
    struct stat st {};
    ASSERT_EQ(::stat(dir_.path(std::string(type) + ".key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u) << type;
    std::filesystem::copy(dir_.path(std::string(type) + ".pub"), dir_.path("keys/"));
  }
  const std::string key_before = read_file(dir_.path("ed25519.key"));
  const std::string sign = "sign --key ed25519.key --serial 3 --expires 30 ";
  const std::tuple<std::string, int, const char*> rows[] = {
      {"", 2, "no command"}, {"keygen --type rsa k", 2, "--type: not ed25519 or gost2012: rsa"},
      {"keygen --type ed25519 ed25519", 1, "ed25519.key exists; not overwritten"},
      {"sign --key ed25519.key --serial 3x --expires 30 update.ini", 2, "--serial: not a decimal number below 2^64: 3x"},
      {"sign --key ed25519.key --serial 3 --expires -1 update.ini", 2, "--expires: not a positive number of days"},
      {"sign --key ed25519.key --serial 3 update.ini", 2, "sign: --expires is missing"},
      {"sign --key keys/ed25519.pub --serial 3 --expires 30 update.ini", 1,
       "keys/ed25519.pub: not a usable secret key: a public key, not a secret key"},
      {sign + "absent.ini", 1, "cannot read absent.ini: No such file or directory"},
      {"verify --keys keys update.ini", 1, "update.ini: Signature check failed: missing update.ini.sig"},
      {sign + "update.ini", 0, "update.ini.sig: signed by key "},
      {"verify --keys keys update.ini", 0, "update.ini: good signature by ed25519.pub, serial 3, expires "},
      {"sign --key gost2012.key --serial 4 --expires 1 update.ini", 0, "serial 4"},
      {"verify --keys keys update.ini", 0, "update.ini: good signature by gost2012.pub, serial 4"},
      {"keygen --type gost2012 keys/other/k", 0, "keys/other/k.pub: key "},
      {"verify --keys keys/other update.ini", 1, "update.ini: Signature check failed: unknown key "},
  };
  for (const auto& [args, status, says] : rows) {
    const auto [exit_status, out] = run(args);
    EXPECT_EQ(exit_status, status) << args << ": " << out;
    EXPECT_NE(out.find(says), std::string::npos) << args << ": " << out;
  }
  EXPECT_EQ(read_file(dir_.path("ed25519.key")), key_before);
  dir_.write("update.ini", "[corvid]\nupdate_version=2.1\n");
  EXPECT_NE(run("verify --keys keys update.ini").second.find("Signature check failed: digest mismatch"),
            std::string::npos);
}

// By the README's recipes: OpenSSL (GOST engine) and we take each other's keys and signatures; a changed byte fails.
TEST_F(SignTest, OpenSslAndOurProgramsAcceptEachOthersKeysAndSignatures) {
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  const auto readme = [](const std::string& title) {  // the code block that the comment "# title" opens
    return "s=$(sed -n '/^    # " + title + "$/,/^$/s/^    //p' " CORVID_SOURCE_DIR "/README.md)\n[ -n \"$s\" ]\neval \"$s\"\n";
  };
  const auto shell = [&](const std::string& kind, const std::string& script) {  // in the kind's directory
    const std::string there = "mkdir -p " + dir_.path(kind) + "\ncd " + dir_.path(kind) + "\nPATH=" CORVID_BIN_DIR ":$PATH\n";
    return fixtures::run_program({"/bin/bash", "-euo", "pipefail", "-c", there + script}, dir_);
  };
  const std::string repo = server.root() + "/repo", ours = "corvid-update-sign sign --key release.key --serial 42 --expires 30 update.ini",
                    verify = "corvid-update-sign verify --keys keys update.ini",
                    agent = "mkdir -p " + repo + "\ncp update.ini update.ini.sig " + repo + "\ncorvid-update --root ../agent " +
                            "--trusted-keys keys check " + server.url("/repo/") + " | tee /dev/stderr | grep -qx update_state=outofdate";
  for (const std::string kind : {"ed25519", "gost2012-256"}) {
    ASSERT_EQ(shell(kind, "cp -r " CORVID_SOURCE_DIR "/examples/repo/. .\n" +
                              readme(kind + ": a key made by OpenSSL, as key files") + "mv release.pem made.pem\n" +
                              readme("either kind: key files back as OpenSSL keys") +
                              "cmp release.pem made.pem\nmkdir keys\ncp release.pub keys/\n").exit_code, 0) << kind;
    const std::string openssl = readme(kind + ": sign update.ini with OpenSSL"),
                      checked = readme(kind + ": check update.ini.sig with OpenSSL");
    for (const auto& [signer, verifier] : {std::pair{openssl, verify}, {openssl, agent}, {ours, checked}}) {
      ASSERT_EQ(shell(kind, signer).exit_code, 0) << signer;
      for (bool changed : {false, true}) {
        std::string sig = read_file(dir_.path(kind + "/update.ini.sig"));
        if (changed) sig[sig.size() - 2] = sig[sig.size() - 2] == '0' ? '1' : '0';
        dir_.write(kind + "/update.ini.sig", sig);
        const auto o = shell(kind, verifier);
        const bool we_refused = (o.out + o.err).find("Signature check failed: bad signature by key") != std::string::npos;
        EXPECT_EQ(std::pair(o.exit_code == 0, we_refused), std::pair(!changed, changed && verifier != checked))
            << verifier << o.out << o.err;
      }
    }
  }
}

// A description with every 64-digit digest as "H", the digest in a patch's
// name as "D" and a patch's size as "N".
std::string normalised(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t n = 0;
    while (i + n < text.size() && std::strchr("0123456789abcdef", text[i + n]) && text[i + n]) ++n;
    const bool digest = n == 64, named = n == 16 && text.compare(i + n, 6, ".patch") == 0;
    const bool size = n > 0 && out.size() >= 2 && out.compare(out.size() - 2, 2, ", ") == 0 &&
                      text.compare(i + n, 2, ", ") == 0 && text.find_first_not_of("0123456789", i) >= i + n;
    out += digest ? "H" : named ? "D" : size ? "N" : text.substr(i, std::max<size_t>(n, 1));
    i += std::max<size_t>(n, 1);
  }
  return out;
}

// A release writes each file's lines in its own section, behind the lines
// they belong to, and replaces the patch lines it had; the rest stays.
TEST_F(SignTest, ReleaseWritesTheLinesOfEachFileInItsPlace) {
  ASSERT_EQ(run("keygen --type ed25519 k").first, 0);
  std::string bytes(3000, '\0');
  for (std::mt19937 random(3); auto& c : bytes) c = static_cast<char>(random());
  for (const char* name : {"old/a.bin", "old/s/b.bin", "new/a.bin", "new/s/b.bin"}) {
    bytes[100] ^= 1;
    std::filesystem::create_directories(std::filesystem::path(dir_.path(name)).parent_path());
    dir_.write(name, bytes);
  }
  const std::pair<std::string, std::string> rows[] = {
      {"[corvid]\nmessage=m\n[corvid.file=b.bin]\nupdate_version=2\ndownload_uri=s/b.bin\ndownload_hash=#SHA256:0\n"
       "exec=y\n\n[corvid.file=c.bin]\nupdate_version=2\ndownload_uri=http://h/c.bin\nexec=z\n\n[corvid.file=a.bin]\nexec=x\n"
       "update_version=2",
       "[corvid]\nmessage=m\n[corvid.file=b.bin]\nupdate_version=2\ndownload_uri=s/b.bin\ndownload_hash=#SHA256:H\n"
       "filesize=3000\ndownload_patch=#SHA256:H, N, #SHA256:H, s/b.bin.D.patch\nexec=y\n\n[corvid.file=c.bin]\n"
       "update_version=2\ndownload_uri=http://h/c.bin\nexec=z\n\n[corvid.file=a.bin]\n"
       "exec=x\nupdate_version=2\ndownload_hash=#GOST3411_256_2012:H\nfilesize=3000\n"
       "download_patch=#GOST3411_256_2012:H, N, #GOST3411_256_2012:H, a.bin.D.patch\n"},
      {"[corvid]\nversion.1=2\nfile.1=s/b.bin,a.bin\npatch.1=a.bin , #SHA256:1, 9, #SHA256:2, gone\nexec.1=x\n",
       "[corvid]\nversion.1=2\nfile.1=s/b.bin,a.bin\nhash.1=#GOST3411_256_2012:H,#GOST3411_256_2012:H\n"
       "filesize.1=3000,3000\npatch.1=b.bin, #GOST3411_256_2012:H, N, #GOST3411_256_2012:H, s/b.bin.D.patch\n"
       "patch.1=a.bin, #GOST3411_256_2012:H, N, #GOST3411_256_2012:H, a.bin.D.patch\nexec.1=x\n"},
  };
  for (const auto& [before, after] : rows) {
    dir_.write("new/update.ini", before);
    const auto [status, out] = run("release --key k.key --serial 1 --expires 3 new old");
    EXPECT_EQ(status, 0) << out;
    EXPECT_EQ(normalised(read_file(dir_.path("new/update.ini"))), after);
  }
  // A previous version that cannot be read, or a patch line that does not read, fails the release, which
  // leaves the description as it was.
  std::filesystem::create_directories(dir_.path("unreadable/a.bin"));
  const std::string indexed = "[corvid]\nversion.1=2\nfile.1=a.bin\nexec.1=x\n";
  const std::tuple<std::string, const char*, const char*> failing[] = {
      {read_file(dir_.path("new/update.ini")), "unreadable", "unreadable/a.bin"},
      {"[corvid.file=a.bin]\nupdate_version=2\nexec=x\ndownload_patch=x\n", "old", "bad patch line"},
      {indexed + "patch.1=a.bin, x\n", "old", "bad patch line"},
      {indexed + "patch.1=b.bin, #SHA256:1, 9, #SHA256:2, p\n", "old", "patch line for no file of the rule: b.bin"},
  };
  for (const auto& [text, previous, says] : failing) {
    dir_.write("new/update.ini", text);
    const auto [status, out] = run(std::string("release --key k.key --serial 2 --expires 3 new ") + previous);
    EXPECT_EQ(status, 1) << out;
    EXPECT_NE(out.find(says), std::string::npos) << out;
    EXPECT_EQ(read_file(dir_.path("new/update.ini")), text);
  }
}

TEST_F(SignTest, ReleaseIsVerifiedAndUpdatesAnAgentByItsPatch) {
  fixtures::nginx_server_t nginx;
  std::string error;
  ASSERT_TRUE(nginx.start(error)) << error;
  std::string v1(300000, '\0');
  for (std::mt19937 random(5); auto& c : v1) c = static_cast<char>(random());
  std::string v2 = std::string(v1).replace(1000, 64, 64, 'n').insert(200000, "more");
  const std::string root = nginx.root(), agent = dir_.path("agent");
  for (const auto& [v, bytes] : {std::pair{std::string("1"), v1}, std::pair{std::string("2"), v2}})
    ASSERT_TRUE(nginx.put_file("v" + v + "/lib/tool.so", bytes) &&
                nginx.put_file("v" + v + "/update.ini",
                               "[corvid]\nversion.1=" + v + "\nfile.1=lib/tool.so\nexec.1=sh -c \"echo " + v +
                                   " >$update_path/tool.so.version\"\nexec_wait.1=1\n"));
  ASSERT_EQ(run("keygen --type ed25519 k").first, 0);
  ASSERT_EQ(run("release --key k.key --serial 1 --expires 3 " + root + "/v1").first, 0);
  const auto released = run("release --key k.key --serial 2 --expires 3 " + root + "/v2 " + root + "/v1");
  ASSERT_EQ(released.first, 0) << released.second;
  std::filesystem::create_directories(dir_.path("keys"));
  std::filesystem::copy(dir_.path("k.pub"), dir_.path("keys/"));
  std::string patch;
  for (const auto& entry : std::filesystem::directory_iterator(root + "/v2/lib"))
    if (entry.path().extension() == ".patch") patch = entry.path();
  const std::string file = root + "/v2/lib/tool.so", kept = read_file(file), kept_patch = read_file(patch);
  // What verify finds when the published directory is not what its description says.
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"", "", "1 files, 1 patches (1 applied to their base), 0 wrong"},
      {file, kept + "x", "lib/tool.so: size is not 300004"},
      {patch, std::string(kept_patch).replace(100, 1, 1, '!'), ".patch: hash is #GOST3411_256_2012:"},
      {patch, "not a patch at all", ".patch: not a patch: "},
  };
  for (const auto& [changed, bytes, says] : rows) {
    if (!changed.empty()) fixtures::write_file(changed, bytes);
    const auto [status, out] = run("verify --keys keys " + root + "/v2/update.ini " + root + "/v1");
    EXPECT_EQ(status, changed.empty() ? 0 : 1) << out;
    EXPECT_NE(out.find(says), std::string::npos) << out;
    fixtures::write_file(file, kept), fixtures::write_file(patch, kept_patch);
  }
  std::filesystem::create_directories(agent + "/etc/update-keys");
  std::filesystem::copy(dir_.path("k.pub"), agent + "/etc/update-keys/");
  for (const char* v : {"/v1/", "/v2/"}) {
    const auto o = fixtures::run_program(
        {CORVID_BIN_DIR "/corvid-update", "--root", agent, "--answer", "yes", "install", nginx.url(v)}, dir_);
    EXPECT_EQ(o.out, "update_state=uptodate\n") << o.err;
  }
  EXPECT_TRUE(read_file(agent + "/var/update/tool.so") == v2);
  std::string asked;
  for (const auto& r : nginx.requests(6)) asked += r.target + " ";
  EXPECT_EQ(asked, "/v1/update.ini /v1/update.ini.sig /v1/lib/tool.so /v2/update.ini /v2/update.ini.sig /v2/lib/" +
                       std::filesystem::path(patch).filename().string() + " ");
}

}  // namespace
