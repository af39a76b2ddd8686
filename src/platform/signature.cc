#include "platform/signature.h"

#include <gcrypt.h>

#include "platform/ascii_text.h"
#include "platform/hash_file.h"

namespace update {

namespace {

constexpr size_t half = 32;  // one number or one encoded point of either kind

// Owner of an S-expression.
struct sexp_t {
  gcry_sexp_t s = nullptr;
  sexp_t() = default;
  explicit sexp_t(gcry_sexp_t owned) : s(owned) {}
  sexp_t(const sexp_t&) = delete;
  sexp_t& operator=(const sexp_t&) = delete;
  ~sexp_t() {
    if (s) gcry_sexp_release(s);
  }
};

const char* curve_of(key_type_t type) { return type == key_type_t::ed25519 ? "Ed25519" : "GOST2012-256-A"; }
const char* flags_of(key_type_t type) { return type == key_type_t::ed25519 ? "eddsa" : "gost"; }

// GOST's numbers travel little-endian, as its tools write them; libgcrypt
// reads and writes them big-endian.
std::string reversed(std::string_view bytes) { return std::string(bytes.rbegin(), bytes.rend()); }

// A secret as libgcrypt takes it, and back: Ed25519's seed is a byte string.
std::string swap_secret(key_type_t type, const std::string& secret) {
  return type == key_type_t::ed25519 ? secret : reversed(secret);
}

// Each coordinate of x || y reversed, both ways between ours and libgcrypt's.
std::string swap_coordinates(std::string_view xy) { return reversed(xy.substr(0, half)) + reversed(xy.substr(half)); }

// libgcrypt's GOST point is 0x04 || x || y.
std::string point_of(const public_key_t& key) {
  return key.type == key_type_t::ed25519 ? key.bytes : "\x04" + swap_coordinates(key.bytes);
}

// Where r sits in a signature: R || S for Ed25519, s || r for GOST.
size_t r_offset(key_type_t type) { return type == key_type_t::ed25519 ? 0 : half; }

// The bytes of the element `name` of an S-expression.
bool element(gcry_sexp_t list, const char* name, std::string& bytes) {
  sexp_t token(gcry_sexp_find_token(list, name, 0));
  size_t length = 0;
  const char* data = token.s ? gcry_sexp_nth_data(token.s, 1, &length) : nullptr;
  if (!data) return false;
  bytes.assign(data, length);
  return true;
}

// A number as exactly `size` big-endian bytes: libgcrypt drops leading zeros
// and may add a sign byte. Ed25519's fields are fixed byte strings already.
bool fixed_width(const std::string& bytes, size_t size, std::string& out) {
  size_t skip = 0;
  while (bytes.size() - skip > size && bytes[skip] == '\0') ++skip;
  if (bytes.size() - skip > size) return false;
  out.assign(size - (bytes.size() - skip), '\0');
  out.append(bytes, skip);
  return true;
}

// Without q: libgcrypt derives the public point from d.
bool secret_sexp(const secret_key_t& key, sexp_t& out) {
  const key_type_t type = key.public_key.type;
  const std::string d = swap_secret(type, key.secret);
  return key.secret.size() == secret_key_size &&
         gcry_sexp_build(&out.s, nullptr, "(private-key (ecc (curve %s) (flags %s) (d %b)))", curve_of(type),
                         flags_of(type), static_cast<int>(d.size()), d.data()) == 0;
}

bool public_sexp(const public_key_t& key, sexp_t& out) {
  if (key.bytes.size() != public_key_size(key.type)) return false;
  const std::string point = point_of(key);
  return gcry_sexp_build(&out.s, nullptr, key.type == key_type_t::ed25519
                                              ? "(public-key (ecc (curve %s) (flags eddsa) (q %b)))"
                                              : "(public-key (ecc (curve %s) (q %b)))",
                         curve_of(key.type), static_cast<int>(point.size()), point.data()) == 0;
}

// What is signed: the message itself, or its digest for GOST.
bool data_sexp(key_type_t type, std::string_view message, sexp_t& out) {
  if (type == key_type_t::ed25519)
    return gcry_sexp_build(&out.s, nullptr, "(data (flags eddsa) (hash-algo sha512) (value %b))",
                           static_cast<int>(message.size()), message.data()) == 0;
  // GOST R 34.10-2012 reads the digest's bytes as a little-endian number.
  const std::string digest = reversed(streebog256(message));
  return gcry_sexp_build(&out.s, nullptr, "(data (flags gost) (value %b))", static_cast<int>(digest.size()),
                         digest.data()) == 0;
}

// The public key of a point as libgcrypt encodes it, if it is on the curve.
bool public_of_point(key_type_t type, std::string q, public_key_t& key) {
  if (type == key_type_t::gost2012_256) {
    if (q.size() != 1 + 2 * half || q[0] != '\x04') return false;
    q = swap_coordinates(std::string_view(q).substr(1));
  }
  public_key_t made{type, std::move(q)};
  if (!valid_public_key(made)) return false;
  key = std::move(made);
  return true;
}

}  // namespace

size_t public_key_size(key_type_t type) { return type == key_type_t::ed25519 ? half : 2 * half; }

bool generate_key(key_type_t type, secret_key_t& key) {
  if (!platform::gcrypt_ready()) return false;
  sexp_t wanted, pair;
  if (gcry_sexp_build(&wanted.s, nullptr, type == key_type_t::ed25519 ? "(genkey (ecc (curve %s) (flags eddsa)))"
                                                                    : "(genkey (ecc (curve %s)))",
                      curve_of(type)) != 0 ||
      gcry_pk_genkey(&pair.s, wanted.s) != 0)
    return false;
  sexp_t secret_part(gcry_sexp_find_token(pair.s, "private-key", 0));
  std::string d, q;
  if (!secret_part.s || !element(secret_part.s, "d", d) || !element(secret_part.s, "q", q)) return false;
  secret_key_t made;
  if (!public_of_point(type, q, made.public_key) || !fixed_width(d, secret_key_size, made.secret)) return false;
  made.secret = swap_secret(type, made.secret);
  key = std::move(made);
  return true;
}

bool derive_public_key(secret_key_t& key) {
  sexp_t secret;
  gcry_ctx_t context = nullptr;
  if (!platform::gcrypt_ready() || !secret_sexp(key, secret) || gcry_mpi_ec_new(&context, secret.s, nullptr) != 0)
    return false;
  const key_type_t type = key.public_key.type;
  gcry_mpi_t q = gcry_mpi_ec_get_mpi(type == key_type_t::ed25519 ? "q@eddsa" : "q", context, 1);
  gcry_ctx_release(context);
  // libgcrypt hands the encoded point over as an opaque string of bytes.
  unsigned int bits = 0;
  const void* data = q && gcry_mpi_get_flag(q, GCRYMPI_FLAG_OPAQUE) ? gcry_mpi_get_opaque(q, &bits) : nullptr;
  const std::string point = data ? std::string(static_cast<const char*>(data), (bits + 7) / 8) : std::string();
  gcry_mpi_release(q);
  return public_of_point(type, point, key.public_key);
}

bool sign_message(const secret_key_t& key, std::string_view message, std::string& signature) {
  // The public point is not handed over, so a secret that is not the public
  // key's fails the check below instead of signing wrong.
  const key_type_t type = key.public_key.type;
  sexp_t secret, data, made;
  if (!platform::gcrypt_ready() || !secret_sexp(key, secret) || !data_sexp(type, message, data) ||
      gcry_pk_sign(&made.s, data.s, secret.s) != 0)
    return false;
  std::string r, s, r_bytes, s_bytes;
  if (!element(made.s, "r", r) || !element(made.s, "s", s) || !fixed_width(r, half, r_bytes) ||
      !fixed_width(s, half, s_bytes))
    return false;
  std::string out = r_offset(type) == 0 ? r_bytes + s_bytes : s_bytes + r_bytes;
  if (!verify_message(key.public_key, message, out)) return false;
  signature = std::move(out);
  return true;
}

bool verify_message(const public_key_t& key, std::string_view message, std::string_view signature) {
  if (!platform::gcrypt_ready() || signature.size() != signature_size) return false;
  sexp_t pub, data, sig;
  return public_sexp(key, pub) && data_sexp(key.type, message, data) &&
         gcry_sexp_build(&sig.s, nullptr,
                         key.type == key_type_t::ed25519 ? "(sig-val (eddsa (r %b) (s %b)))"
                                                         : "(sig-val (gost (r %b) (s %b)))",
                         static_cast<int>(half), signature.data() + r_offset(key.type), static_cast<int>(half),
                         signature.data() + half - r_offset(key.type)) == 0 &&
         gcry_pk_verify(sig.s, data.s, pub.s) == 0;
}

bool valid_public_key(const public_key_t& key) {
  sexp_t pub;
  gcry_ctx_t context = nullptr;
  if (!platform::gcrypt_ready() || !public_sexp(key, pub) || gcry_mpi_ec_new(&context, pub.s, nullptr) != 0)
    return false;
  gcry_mpi_point_t point = gcry_mpi_ec_get_point("q", context, 0);
  const bool on_curve = point && gcry_mpi_ec_curve_point(point, context);
  gcry_mpi_point_release(point);
  gcry_ctx_release(context);
  return on_curve;
}

std::string key_id(const public_key_t& key) {
  unsigned char digest[32];
  if (!platform::gcrypt_ready()) return std::string();
  gcry_md_hash_buffer(GCRY_MD_SHA256, digest, key.bytes.data(), key.bytes.size());
  return hex_lower(std::string_view(reinterpret_cast<const char*>(digest), 8));
}

std::string streebog256(std::string_view bytes) {
  std::string digest(32, '\0');
  if (platform::gcrypt_ready()) gcry_md_hash_buffer(GCRY_MD_STRIBOG256, digest.data(), bytes.data(), bytes.size());
  return digest;
}

}  // namespace update
