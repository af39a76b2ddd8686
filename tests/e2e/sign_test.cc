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

// Keys and signatures pass between OpenSSL (with its GOST engine, an
// implementation independent of ours) and our programs by the README's
// recipes, run as written there: what one side signs the other accepts, the
// agent's check against nginx included, and a changed byte fails either side.
TEST_F(SignTest, OpenSslAndOurProgramsAcceptEachOthersKeysAndSignatures) {
  const std::string readme = read_file(CORVID_SOURCE_DIR "/README.md"), ini = read_file(CORVID_SOURCE_DIR "/examples/repo/update.ini");
  const auto recipe = [&](const std::string& title) {  // the code block that the comment "# title" opens
    std::string script;
    size_t at = readme.find("\n    # " + title + "\n");
    EXPECT_NE(at, std::string::npos) << title;
    for (at = at == std::string::npos ? readme.size() : at + 1; readme.compare(at, 4, "    ") == 0; at = readme.find('\n', at) + 1)
      script += readme.substr(at + 4, readme.find('\n', at) - at - 3);
    return script;
  };
  const auto shell = [&](const std::string& kind, const std::string& script) {
    return fixtures::run_program({"/bin/bash", "-euo", "pipefail", "-c", "cd " + kind + " && PATH=" CORVID_BIN_DIR ":$PATH && " + script}, dir_);
  };
  fixtures::nginx_server_t server;
  std::string error;
  ASSERT_TRUE(server.start(error)) << error;
  const auto verify = [&](const std::string& kind, const std::string& verifier) {
    const std::string at = dir_.path(kind);
    if (verifier == "openssl") return shell(at, recipe(kind + ": check update.ini.sig with OpenSSL"));
    if (verifier == "corvid-update-sign") return shell(at, "corvid-update-sign verify --keys keys update.ini");
    EXPECT_TRUE(server.put_file("repo/update.ini", ini) && server.put_file("repo/update.ini.sig", read_file(at + "/update.ini.sig")));
    auto o = shell(at, "corvid-update --root ../agent --trusted-keys keys check " + server.url("/repo/"));
    o.exit_code = o.out == "update_state=outofdate\n" ? 0 : 1;
    return o;
  };
  const std::tuple<std::string, std::string, std::string> rows[] = {  // kind, signer, verifier
      {"ed25519", "openssl", "corvid-update-sign"},      {"ed25519", "openssl", "agent"},
      {"ed25519", "corvid-update-sign", "openssl"},      {"gost2012-256", "openssl", "corvid-update-sign"},
      {"gost2012-256", "openssl", "agent"},              {"gost2012-256", "corvid-update-sign", "openssl"}};
  for (const auto& [kind, signer, verifier] : rows) {
    const std::string at = dir_.path(kind) + "/";
    if (!std::filesystem::exists(at)) {  // the kind's key, from OpenSSL to key files and back
      std::filesystem::create_directories(at + "keys");
      dir_.write(kind + "/update.ini", ini);
      ASSERT_EQ(shell(at, recipe(kind + ": a key made by OpenSSL, as key files")).exit_code, 0);
      std::filesystem::rename(at + "release.pem", at + "made.pem");
      ASSERT_EQ(shell(at, recipe("either kind: key files as OpenSSL's keys")).exit_code, 0);
      EXPECT_EQ(read_file(at + "release.pem"), read_file(at + "made.pem")) << kind;
      std::filesystem::copy(at + "release.pub", at + "keys/");
    }
    const auto made = shell(at, signer == "openssl" ? recipe(kind + ": sign update.ini with OpenSSL")
                                                     : "corvid-update-sign sign --key release.key --serial 42 --expires 30 update.ini");
    ASSERT_EQ(made.exit_code, 0) << made.out << made.err;
    for (bool changed : {false, true}) {
      std::string sig = read_file(at + "update.ini.sig");
      if (changed) sig[sig.size() - 2] = sig[sig.size() - 2] == '0' ? '1' : '0';
      fixtures::write_file(at + "update.ini.sig", sig);
      const auto o = verify(kind, verifier);
      EXPECT_EQ(o.exit_code == 0, !changed) << kind << " by " << signer << " to " << verifier << ": " << o.out << o.err;
      if (changed && verifier != "openssl") {
        EXPECT_NE(o.out.find("Signature check failed: bad signature by key"), std::string::npos) << o.out;
      }
    }
  }
  const auto other_set = shell(dir_.path("gost2012-256"), "openssl genpkey -engine gost -algorithm gost2012_256 -pkeyopt paramset:A -out cp.pem && corvid-update-sign import --pem cp.pem cp");
  EXPECT_NE(other_set.err.find("cp.pem: not a usable key: not an Ed25519 key or a GOST R 34.10-2012 256-bit key on paramSetA"), std::string::npos) << other_set.err;
}

}  // namespace
