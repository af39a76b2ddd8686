// Fuzz target for the texts of signed descriptions: update.ini.sig and its
// check, the key files and the serial store, all on each input. Besides
// crashes and sanitizer findings it checks properties that a wrong reader
// would break:
//  - an accepted update.ini.sig covers its text up to the LF before its
//    "signature: " line, and its fields have their sizes;
//  - the check passes only what the reader accepts, with a known key, and
//    refuses everything else with one of its reasons;
//  - an accepted key file, PEM key or serial store, written back, reads back
//    the same.
// The seeds (fuzz/corpus_signature) are signed by the two keys below over
// the description below, so that mutations reach the signature itself.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz/fuzz_support.h"
#include "support/key_file.h"
#include "support/pem_key.h"
#include "support/serial_store.h"
#include "support/signature_file.h"

namespace {

using fuzz::check;

const std::string description = "[corvid]\nupdate_version=2.0\n";

const std::vector<update::trusted_key_t>& trusted() {
  static const std::vector<update::trusted_key_t> keys = [] {
    std::vector<update::trusted_key_t> read;
    for (const char* text :
         {"corvid-update-public-key 1\nalgorithm: ed25519\n"
          "key: 0cd523241aafaeee9640d6cfee4e1c523a2f506028eeb5fb59de02c60bee3467\n",
          "corvid-update-public-key 1\nalgorithm: gost2012-256\n"
          "key: b2e47de5b6551ab997b4d11b87868e156865aa119452171c38f9886b4d7f8161042dfa46ad0172c7800422bd85829fd67abd832b12dbca"
          "1a5c1eb4cab87d7076\n"}) {
      update::trusted_key_t key;
      std::string reason;
      check(update::read_public_key(text, key.key, reason), "the fuzzer's own keys read");
      key.id = update::key_id(key.key);
      read.push_back(key);
    }
    return read;
  }();
  return keys;
}

void check_signature_file(std::string_view text) {
  update::signature_file_t file;
  std::string reason;
  const bool read = update::read_signature_file(text, file, reason);
  check(read == reason.empty(), "a refusal has a reason, an acceptance none");
  if (read) {
    check(file.signed_length < text.size() && text[file.signed_length - 1] == '\n', "the signed part ends a line");
    check(text.substr(file.signed_length, 11) == "signature: ", "the signature line follows the signed part");
    check(file.key_id.size() == 16 && file.digest.size() == 32 && file.signature.size() == 64, "fields have sizes");
    update::packed_time_t again = update::bad_time;
    check(update::read_expiry(update::expiry_text(file.expires), again) && again == file.expires, "expiry reads back");
  }
  update::packed_time_t now = update::bad_time;
  update::read_expiry("2030-01-01T00:00:00Z", now);
  const update::signature_check_t result = update::check_signature(text, description, trusted(), now, 5);
  check(result.ok == result.reason.empty(), "a refused check has a reason");
  check(!result.ok || (read && result.serial == file.serial && result.serial >= 5), "a passed check read the file");
  if (!read) check(result.reason == "malformed update.ini.sig: " + reason, "a malformed file is refused as such");
}

void check_keys(std::string_view text) {
  update::public_key_t public_key, public_again;
  update::secret_key_t secret_key, secret_again;
  std::string reason;
  if (update::read_public_key(text, public_key, reason)) {
    check(update::read_public_key(update::public_key_text(public_key), public_again, reason), "public key reads back");
    check(public_again.bytes == public_key.bytes && public_again.type == public_key.type, "same public key");
  }
  if (update::read_secret_key(text, secret_key, reason)) {
    check(update::read_secret_key(update::secret_key_text(secret_key), secret_again, reason), "secret key reads back");
    check(secret_again.secret == secret_key.secret && secret_again.public_key.bytes == secret_key.public_key.bytes,
          "same secret key");
  }
}

void check_pem(std::string_view text) {
  update::secret_key_t key, again;
  std::string reason;
  if (!update::read_pem_key(text, key, reason)) return;
  const bool secret = !key.secret.empty();
  check(update::read_pem_key(secret ? update::pem_secret_key(key) : update::pem_public_key(key.public_key), again,
                             reason),
        "PEM key reads back");
  check(again.secret == key.secret && again.public_key.bytes == key.public_key.bytes &&
            again.public_key.type == key.public_key.type,
        "same PEM key");
}

void check_serials(std::string_view text) {
  update::serial_store_t serials, again;
  std::string reason;
  if (!update::read_serial_store(text, serials, reason)) return;
  check(update::read_serial_store(update::serial_store_text(serials), again, reason) && again == serials,
        "serial store reads back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  check_signature_file(text);
  check_keys(text);
  check_pem(text);
  check_serials(text);
  return 0;
}
