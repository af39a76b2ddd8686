// corvid-update-sign: the publisher's side of signed descriptions. Makes key
// pairs or takes them from OpenSSL's PEM files and back, signs a source's
// update.ini, and checks a signature as an agent would (without the agent's
// memory of serials).
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sign/release.h"
#include "support/file_helpers.h"
#include "support/key_file.h"
#include "support/pem_key.h"
#include "support/signature_file.h"
#include "support/text_fields.h"

namespace {

constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;

constexpr const char* usage_text =
    "Usage: corvid-update-sign COMMAND [OPTIONS] ARGUMENT\n"
    "Make keys for signed update descriptions, sign a description, check a signature.\n"
    "\n"
    "  keygen --type ed25519|gost2012 NAME\n"
    "      write a new key pair: the secret key NAME.key (mode 0600, no password)\n"
    "      and the public key NAME.pub, which agents trust; existing files are\n"
    "      never overwritten\n"
    "  import --pem KEY.pem NAME\n"
    "      write the key files of OpenSSL's PEM key KEY.pem (Ed25519, or GOST\n"
    "      2012-256 on paramSetA): NAME.key and NAME.pub from a private key,\n"
    "      NAME.pub alone from a public key\n"
    "  export --pem KEY.pem FILE\n"
    "      write the key file FILE (NAME.key or NAME.pub) as OpenSSL's PEM key\n"
    "      KEY.pem, mode 0600 for a secret key; an existing KEY.pem is kept\n"
    "  sign --key NAME.key --serial N --expires DAYS FILE\n"
    "      write FILE.sig beside FILE (update.ini.sig for update.ini), valid for\n"
    "      DAYS days from now; raise N with every new description\n"
    "  verify --keys DIR FILE [PREVIOUS...]\n"
    "      check FILE.sig against FILE and the public keys DIR/*.pub, then every\n"
    "      file and patch FILE names beside it; a patch whose base one of the\n"
    "      PREVIOUS directories holds is applied and its result checked\n"
    "  release --key NAME.key --serial N --expires DAYS DIR [PREVIOUS...]\n"
    "      write the hash and size of every file DIR/update.ini names, make a\n"
    "      patch from each PREVIOUS directory's version of it, write their\n"
    "      lines, and sign, as sign does\n"
    "  --help\n"
    "      show this text\n"
    "\n"
    "Exit status: 0 done or a good signature, 1 failed, 2 a wrong command line.\n";

struct command_line_t {
  std::string command;
  std::map<std::string, std::string> options;  // "--type" to its value
  std::vector<std::string> arguments;
};

int fail(int status, const std::string& message) {
  std::fprintf(stderr, "corvid-update-sign: %s\n", message.c_str());
  if (status == exit_usage) std::fprintf(stderr, "Try 'corvid-update-sign --help'.\n");
  return status;
}

bool read_whole(const std::string& path, std::string& text, std::string& error) {
  if (update::read_whole_file(path, text)) return true;
  error = "cannot read " + path + ": " + std::strerror(errno);
  return false;
}

// Creates path with mode and the text, failing if it exists: the mode is the
// file's from its first moment.
bool create_new(const std::string& path, const std::string& text, mode_t mode, std::string& error) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  bool ok = fd >= 0 && ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && ::fsync(fd) == 0;
  if (!ok) error = "cannot create " + path + ": " + std::strerror(errno);
  if (fd >= 0 && ::close(fd) != 0) ok = false;
  if (!ok && fd >= 0) ::unlink(path.c_str());
  return ok;
}

// Writes NAME.pub and, unless key has no secret, NAME.key; neither may exist.
int write_key_files(const std::string& name, const update::secret_key_t& key) {
  const std::string secret_path = name + ".key", public_path = name + ".pub";
  const bool secret = !key.secret.empty();
  for (const auto& path : {secret_path, public_path})
    if (::access(path.c_str(), F_OK) == 0) return fail(exit_failed, path + " exists; not overwritten");
  std::string error;
  if (secret && !create_new(secret_path, update::secret_key_text(key), 0600, error)) return fail(exit_failed, error);
  if (!create_new(public_path, update::public_key_text(key.public_key), 0644, error)) {
    if (secret) ::unlink(secret_path.c_str());
    return fail(exit_failed, error);
  }
  std::printf("%s: key %s (%s)\n", public_path.c_str(), update::key_id(key.public_key).c_str(),
              update::key_type_name(key.public_key.type));
  if (secret) std::printf("%s: its secret key; keep it private\n", secret_path.c_str());
  return exit_ok;
}

int keygen(const command_line_t& line) {
  const std::string& type_name = line.options.at("--type");
  update::key_type_t type;
  if (type_name == "gost2012")
    type = update::key_type_t::gost2012_256;
  else if (!update::key_type_named(type_name, type))
    return fail(exit_usage, "--type: not ed25519 or gost2012: " + type_name);
  update::secret_key_t key;
  if (!update::generate_key(type, key)) return fail(exit_failed, "libgcrypt could not make a key");
  return write_key_files(line.arguments[0], key);
}

int import_pem(const command_line_t& line) {
  const std::string& pem_path = line.options.at("--pem");
  std::string text, error, reason;
  update::secret_key_t key;
  if (!read_whole(pem_path, text, error)) return fail(exit_failed, error);
  if (!update::read_pem_key(text, key, reason)) return fail(exit_failed, pem_path + ": not a usable key: " + reason);
  return write_key_files(line.arguments[0], key);
}

int export_pem(const command_line_t& line) {
  const std::string &path = line.arguments[0], &pem_path = line.options.at("--pem");
  std::string text, error, reason;
  update::secret_key_t key;
  if (!read_whole(path, text, error)) return fail(exit_failed, error);
  if (!update::read_key_file(text, key, reason)) return fail(exit_failed, path + ": not a usable key: " + reason);
  const bool secret = !key.secret.empty();
  if (!create_new(pem_path, secret ? update::pem_secret_key(key) : update::pem_public_key(key.public_key),
                  secret ? 0600 : 0644, error))
    return fail(exit_failed, error);
  std::printf("%s: %s key %s (%s)\n", pem_path.c_str(), secret ? "secret" : "public",
              update::key_id(key.public_key).c_str(), update::key_type_name(key.public_key.type));
  return exit_ok;
}

int sign(const command_line_t& line) {
  uint64_t serial = 0, days = 0;
  const std::string &serial_text = line.options.at("--serial"), &days_text = line.options.at("--expires");
  if (!update::parse_serial(serial_text, serial))
    return fail(exit_usage, "--serial: not a decimal number below 2^64: " + serial_text);
  const std::time_t now = std::time(nullptr);
  const uint64_t most_days = 400000;  // the time library stops at the year 3000
  update::packed_time_t expires = update::bad_time;
  if (update::parse_serial(days_text, days) && days > 0 && days <= most_days)
    expires = update::packed_from_time(static_cast<int64_t>(now) + static_cast<int64_t>(days) * 86400);
  if (expires == update::bad_time)
    return fail(exit_usage, "--expires: not a positive number of days before the year 3000: " + days_text);

  const std::string& key_path = line.options.at("--key");
  const std::string& path = line.arguments[0];
  std::string key_text, description, error, reason;
  update::secret_key_t key;
  if (!read_whole(key_path, key_text, error)) return fail(exit_failed, error);
  if (!update::read_secret_key(key_text, key, reason))
    return fail(exit_failed, key_path + ": not a usable secret key: " + reason);
  if (!read_whole(path, description, error)) return fail(exit_failed, error);
  std::string text;
  if (!update::sign_description(key, description, serial, expires, text))
    return fail(exit_failed, "libgcrypt could not sign");
  if (update::write_file_atomically(path + ".sig", {text}) != update::atomic_write_t::done)
    return fail(exit_failed, "cannot write " + path + ".sig");
  std::printf("%s.sig: signed by key %s, serial %llu, expires %s\n", path.c_str(),
              update::key_id(key.public_key).c_str(), static_cast<unsigned long long>(serial),
              update::expiry_text(expires).c_str());
  return exit_ok;
}

int verify(const command_line_t& line) {
  const std::string& dir = line.options.at("--keys");
  const std::string& path = line.arguments[0];
  std::vector<update::trusted_key_t> keys;
  std::string error, description, signature;
  if (!update::read_trusted_keys(dir, keys, error)) return fail(exit_failed, error);
  if (keys.empty()) return fail(exit_failed, "no public keys (*.pub) in " + dir);
  if (!read_whole(path, description, error)) return fail(exit_failed, error);
  // No signature file is the check's own refusal, as for an agent.
  std::optional<std::string_view> sig;
  if (::access((path + ".sig").c_str(), F_OK) == 0 || errno != ENOENT) {
    if (!read_whole(path + ".sig", signature, error)) return fail(exit_failed, error);
    sig = signature;
  }
  const update::signature_check_t check = update::check_signature(sig, description, keys, update::packed_now(), {});
  if (!check.ok) {
    std::printf("%s: Signature check failed: %s\n", path.c_str(), check.reason.c_str());
    return exit_failed;
  }
  std::printf("%s: good signature by %s, serial %llu, expires %s\n", path.c_str(), check.key_name.c_str(),
              static_cast<unsigned long long>(check.serial), update::expiry_text(check.expires).c_str());
  const std::vector<std::string> previous(line.arguments.begin() + 1, line.arguments.end());
  return update::verify_release(path, previous) ? exit_ok : exit_failed;
}

// The files' lines and patches (sign/release.cc), then the signature.
int release(const command_line_t& line) {
  return update::run_release(line.arguments, [&line](const std::string& path) {
    command_line_t signing = line;
    signing.arguments = {path};
    return sign(signing);
  });
}

struct command_t {
  const char* name;
  std::vector<std::string> options;  // each required once
  int (*run)(const command_line_t&);
  const char* argument = "FILE";  // what the first argument names
};

const command_t commands[] = {
    {"keygen", {"--type"}, keygen, "NAME"},
    {"import", {"--pem"}, import_pem, "NAME"},
    {"export", {"--pem"}, export_pem},
    {"sign", {"--key", "--serial", "--expires"}, sign},
    {"verify", {"--keys"}, verify},
    {"release", {"--key", "--serial", "--expires"}, release, "DIR"},
};

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--help") == 0) {
      std::fputs(usage_text, stdout);
      return exit_ok;
    }
  if (argc < 2) return fail(exit_usage, "no command");
  const command_t* command = nullptr;
  for (const auto& c : commands)
    if (argv[1] == std::string(c.name)) command = &c;
  if (!command) return fail(exit_usage, std::string("unknown command: ") + argv[1]);

  command_line_t line;
  for (int i = 2; i < argc; ++i) {
    const std::string word = argv[i];
    if (word.rfind("--", 0) != 0) {
      line.arguments.push_back(word);
      continue;
    }
    bool known = false;
    for (const auto& o : command->options) known = known || o == word;
    if (!known) return fail(exit_usage, std::string(command->name) + ": unknown option " + word);
    if (i + 1 >= argc) return fail(exit_usage, word + " needs a value");
    if (!line.options.emplace(word, argv[++i]).second) return fail(exit_usage, word + " given twice");
  }
  for (const auto& o : command->options)
    if (!line.options.count(o)) return fail(exit_usage, std::string(command->name) + ": " + o + " is missing");
  const bool more = command->run == verify || command->run == release;
  if (line.arguments.empty() || (line.arguments.size() > 1 && !more))
    return fail(exit_usage, std::string(command->name) + ": expects one " + command->argument + " after its options");
  return command->run(line);
}
