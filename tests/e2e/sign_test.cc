// The built corvid-update-sign, run as a publisher would run it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
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
      {"", 2, "no command"},
      {"keygen --type rsa k", 2, "--type: not ed25519 or gost2012: rsa"},
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
    ASSERT_EQ(shell(kind, "cp " CORVID_SOURCE_DIR "/examples/repo/update.ini .\n" +
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

}  // namespace
