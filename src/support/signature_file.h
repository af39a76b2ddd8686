// The detached signature of a source's description, and the check a source
// must pass when the agent trusts at least one key.
//
// Signed descriptions: the formats
// --------------------------------
// A source that is signed serves "update.ini.sig" beside "update.ini". It is
// ASCII text, at most 4096 bytes, of exactly these seven lines in this
// order, each ended by a line feed (LF, no CR), with one space after each
// colon and nothing else before or after:
//
//     corvid-update-signature 1
//     key-id: 5c1f0e9a7b3d2e64
//     algorithm: ed25519
//     digest: #GOST3411_256_2012:9d151eefd8590b89daa6ba6cb74af9275dd051026bb149a452fd84e5e57b5500
//     serial: 42
//     expires: 2026-12-31T00:00:00Z
//     signature: 6a0c...(128 hex digits)
//
//   key-id     the first 8 bytes of SHA-256 over the raw public key, 16 hex
//              digits
//   algorithm  ed25519 or gost2012-256 (the key's kind, below)
//   digest     GOST R 34.11-2012 256-bit (Streebog-256) of the exact bytes of
//              update.ini, 64 hex digits, byte by byte in the order the hash
//              gives them (as rhash --gost12-256 prints it)
//   serial     a decimal number below 2^64 without leading zeros; the
//              publisher raises it with every new update.ini
//   expires    a UTC time; the signature is refused from that second on
//   signature  the signature, 64 bytes in 128 hex digits, over the exact
//              bytes of the file from its first byte up to and including the
//              LF that ends the "expires:" line
// Hex digits may be upper or lower case; the programs write lower case.
//
// Keys. Ed25519 (RFC 8032, pure EdDSA over the signed bytes): a 32-byte
// secret seed, a 32-byte public key, the signature R || S as RFC 8032
// encodes it. gost2012-256: GOST R 34.10-2012 with a 256-bit key on the
// parameter set id-tc26-gost-3410-12-256-paramSetA (OID
// 1.2.643.7.1.2.1.1.1), in the layout of the common GOST tools; it signs the
// Streebog-256 digest of the signed bytes, its 32 bytes in the order the
// hash gives them read as a little-endian number; the secret d is 32 bytes
// little-endian, the public key x || y 64 bytes, each coordinate
// little-endian, the signature s || r 64 bytes, each big-endian. Either
// kind's key bytes are the last 32 (secret) or the last 32 or 64 (public)
// bytes of the DER form of OpenSSL's key files.
//
// A public key file (NAME.pub) and a secret key file (NAME.key, mode 0600,
// no password) are text of the same kind:
//
//     corvid-update-public-key 1        corvid-update-secret-key 1
//     algorithm: gost2012-256           algorithm: gost2012-256
//     key: <public key, hex>            key: <secret key, hex>
//                                       public: <public key, hex>
//
// The check. A source passes when its update.ini.sig exists and reads as
// above, names a trusted key of its algorithm, carries that key's valid
// signature, names the digest of the update.ini that came with it, has not
// expired, and its serial is at least the highest this agent has accepted
// from the source (an equal serial passes: the same signed file again). The
// reasons of a refusal, each behind "Signature check failed: ":
//   missing update.ini.sig
//   malformed update.ini.sig: line 5 is not "serial: ..."    (and the like)
//   unknown key 5c1f0e9a7b3d2e64
//   key 5c1f0e9a7b3d2e64 is ed25519, not gost2012-256
//   bad signature by key 5c1f0e9a7b3d2e64
//   digest mismatch: update.ini hashes to #GOST3411_256_2012:<hex>
//   expired at 2026-12-31T00:00:00Z
//   older serial: 41 is below 42
#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/signature.h"
#include "support/key_file.h"
#include "support/time_text.h"

namespace update {

constexpr const char* signature_file_name = "update.ini.sig";
constexpr size_t signature_file_limit = 4096;

struct signature_file_t {
  std::string key_id;  // 16 lower-case hex digits
  key_type_t algorithm = key_type_t::ed25519;
  std::string digest;  // 32 bytes, Streebog-256 of update.ini
  uint64_t serial = 0;
  packed_time_t expires = bad_time;
  std::string signature;     // signature_size bytes
  size_t signed_length = 0;  // the bytes of the text the signature covers
};

// Reads an update.ini.sig strictly as above. False with a short lower-case
// reason ("line 3 is not ...", "serial is not ...") for any other text.
bool read_signature_file(std::string_view text, signature_file_t& file, std::string& reason);

// The publisher's side: the whole update.ini.sig for update_ini, signed with
// key. False if the expiry cannot be written or signing fails (see
// sign_message).
bool sign_description(const secret_key_t& key, std::string_view update_ini, uint64_t serial, packed_time_t expires,
                      std::string& text);

// "2026-12-31T00:00:00Z"; reading refuses any other form and dates that do
// not exist, and accepts 1970 to 3000.
std::string expiry_text(packed_time_t time);
bool read_expiry(std::string_view text, packed_time_t& time);

struct signature_check_t {
  bool ok = false;
  std::string reason;     // when refused, one of the reasons above
  std::string key_name;   // when passed: the trusted key's file name
  uint64_t serial = 0;    // when passed: to be stored as the source's highest
  packed_time_t expires = bad_time;
};

// The check of one source, pure: signature is the text of its update.ini.sig
// (none when the source has no such file), update_ini the exact bytes of its
// update.ini, now the time (packed_now(); an unreadable clock refuses as
// expired), highest the highest serial accepted from this source so far, or
// none. The caller keeps the serial of a passed check.
signature_check_t check_signature(std::optional<std::string_view> signature, std::string_view update_ini,
                                  const std::vector<trusted_key_t>& trusted, packed_time_t now,
                                  std::optional<uint64_t> highest);

}  // namespace update
