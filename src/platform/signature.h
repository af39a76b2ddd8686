// Public-key signatures over libgcrypt, in two kinds of key:
//
//   Ed25519       pure EdDSA over the message (RFC 8032). Secret: the
//                 32-byte seed; public: the 32-byte encoded point;
//                 signature: R || S, 64 bytes, all as RFC 8032 encodes them.
//   GOST 2012-256 GOST R 34.10-2012 with a 256-bit key on the parameter set
//                 id-tc26-gost-3410-12-256-paramSetA (OID 1.2.643.7.1.2.1.1.1,
//                 libgcrypt's "GOST2012-256-A"), in the byte layout of the
//                 common GOST tools (RFC 4491, RFC 7091). It signs the GOST R
//                 34.11-2012 (Streebog-256) digest of the message, its 32
//                 bytes in the order the hash gives them read as a
//                 little-endian number. Secret: d, 32 bytes little-endian
//                 (as in a PKCS #8 key); public: x || y, 64 bytes, each
//                 coordinate little-endian (as in a SubjectPublicKeyInfo);
//                 signature: s || r, 64 bytes, each big-endian.
//
// Keys and signatures travel as raw bytes in std::string. Nothing here
// reports or raises; every function is safe from any thread.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

namespace update {

enum class key_type_t { ed25519, gost2012_256 };

constexpr size_t signature_size = 64;
constexpr size_t secret_key_size = 32;  // both kinds
size_t public_key_size(key_type_t type);  // 32 for Ed25519, 64 for GOST

struct public_key_t {
  key_type_t type = key_type_t::ed25519;
  std::string bytes;  // public_key_size(type) bytes
};

struct secret_key_t {
  public_key_t public_key;
  std::string secret;  // secret_key_size bytes
};

// A fresh key pair from libgcrypt's strong random generator. False if
// libgcrypt fails.
bool generate_key(key_type_t type, secret_key_t& key);

// Fills key.public_key.bytes from key.secret, for key.public_key.type. False
// if libgcrypt fails or the secret makes no public key (GOST's zero).
bool derive_public_key(secret_key_t& key);

// Signs message (Ed25519) or its Streebog-256 digest (GOST) with the secret,
// and checks the result against key.public_key before handing it out. False,
// with signature unchanged, if libgcrypt fails or the secret does not belong
// to that public key.
bool sign_message(const secret_key_t& key, std::string_view message, std::string& signature);

// True if signature is key's signature of message. False for any malformed
// input as well, never an error.
bool verify_message(const public_key_t& key, std::string_view message, std::string_view signature);

// True if the bytes have the type's size and encode a point on its curve.
// Trusted keys are checked with it when they are read.
bool valid_public_key(const public_key_t& key);

// The 16 lower-case hex digits of the first 8 bytes of SHA-256 over the raw
// public key: how a signature names the key that made it.
std::string key_id(const public_key_t& key);

// The 32-byte Streebog-256 (GOST R 34.11-2012) digest of bytes in memory.
std::string streebog256(std::string_view bytes);

}  // namespace update
