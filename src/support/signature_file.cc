#include "support/signature_file.h"

#include "support/message_format.h"
#include "support/text_fields.h"

namespace update {

namespace {

constexpr std::string_view header = "corvid-update-signature 1";
constexpr std::string_view digest_decoration = "#GOST3411_256_2012:";
constexpr size_t digest_size = 32;

bool refuse(std::string& reason, const char* why) {
  reason = why;
  return false;
}

signature_check_t refused(std::string reason) {
  signature_check_t check;
  check.reason = std::move(reason);
  return check;
}

}  // namespace

std::string expiry_text(packed_time_t time) {
  std::string text;
  time_text_iso(time, text);
  return text + "Z";
}

bool read_expiry(std::string_view text, packed_time_t& time) {
  static constexpr std::string_view shape = "0000-00-00T00:00:00Z";
  if (text.size() != shape.size()) return false;
  for (size_t i = 0; i < shape.size(); ++i)
    if (shape[i] == '0' ? text[i] < '0' || text[i] > '9' : text[i] != shape[i]) return false;
  auto number = [&](size_t at, size_t digits) {
    unsigned value = 0;
    for (size_t i = at; i < at + digits; ++i) value = value * 10 + static_cast<unsigned>(text[i] - '0');
    return value;
  };
  const unsigned month = number(5, 2);
  if (month < 1 || month > 12) return false;
  const packed_time_t packed = packed_time_t{number(0, 4)} << 40 | packed_time_t{month - 1} << 32 |
                               packed_time_t{number(8, 2)} << 24 | packed_time_t{number(11, 2)} << 16 |
                               packed_time_t{number(14, 2)} << 8 | number(17, 2);
  // Through seconds and back: a date that does not exist (February 30th,
  // hour 24) comes back as another.
  if (packed_from_time(packed_to_time(packed)) != packed) return false;
  time = packed;
  return true;
}

bool read_signature_file(std::string_view text, signature_file_t& file, std::string& reason) {
  if (text.size() > signature_file_limit) {
    reason = format_message("%slarger than %zu bytes", "", signature_file_limit);
    return false;
  }
  text_lines_t lines(text);
  std::string_view id, algorithm, digest, serial, expires, signature;
  if (!lines.exactly(header, reason) || !lines.field("key-id", id, reason) ||
      !lines.field("algorithm", algorithm, reason) || !lines.field("digest", digest, reason) ||
      !lines.field("serial", serial, reason) || !lines.field("expires", expires, reason))
    return false;
  signature_file_t read;
  read.signed_length = lines.offset();
  if (!lines.field("signature", signature, reason) || !lines.at_end(reason)) return false;

  std::string id_bytes;
  if (!bytes_of_hex(id, 8, id_bytes)) return refuse(reason, "key-id is not 16 hex digits");
  read.key_id = hex_lower(id_bytes);
  if (!key_type_named(algorithm, read.algorithm)) return refuse(reason, "algorithm is not ed25519 or gost2012-256");
  if (digest.substr(0, digest_decoration.size()) != digest_decoration ||
      !bytes_of_hex(digest.substr(digest_decoration.size()), digest_size, read.digest))
    return refuse(reason, "digest is not #GOST3411_256_2012: and 64 hex digits");
  if (!parse_serial(serial, read.serial)) return refuse(reason, "serial is not a decimal number below 2^64");
  if (!read_expiry(expires, read.expires)) return refuse(reason, "expires is not a UTC time YYYY-MM-DDTHH:MM:SSZ");
  if (!bytes_of_hex(signature, signature_size, read.signature))
    return refuse(reason, "signature is not 128 hex digits");
  file = std::move(read);
  return true;
}

bool sign_description(const secret_key_t& key, std::string_view update_ini, uint64_t serial, packed_time_t expires,
                      std::string& text) {
  const std::string expiry = expiry_text(expires);
  packed_time_t again = bad_time;
  if (!read_expiry(expiry, again) || again != expires) return false;
  const std::string signed_part = std::string(header) + "\nkey-id: " + key_id(key.public_key) +
                                  "\nalgorithm: " + key_type_name(key.public_key.type) + "\ndigest: " +
                                  std::string(digest_decoration) + hex_lower(streebog256(update_ini)) +
                                  "\nserial: " + std::to_string(serial) + "\nexpires: " + expiry + "\n";
  std::string signature;
  if (!sign_message(key, signed_part, signature)) return false;
  text = signed_part + "signature: " + hex_lower(signature) + "\n";
  return true;
}

signature_check_t check_signature(std::optional<std::string_view> signature, std::string_view update_ini,
                                  const std::vector<trusted_key_t>& trusted, packed_time_t now,
                                  std::optional<uint64_t> highest) {
  if (!signature) return refused(std::string("missing ") + signature_file_name);
  signature_file_t file;
  std::string why;
  if (!read_signature_file(*signature, file, why))
    return refused(format_message("%smalformed %s: %s", "", signature_file_name, why.c_str()));
  const trusted_key_t* key = nullptr;
  for (const auto& candidate : trusted)
    if (candidate.id == file.key_id) {
      key = &candidate;
      break;
    }
  const char* id = file.key_id.c_str();
  if (!key) return refused(format_message("%sunknown key %s", "", id));
  if (key->key.type != file.algorithm)
    return refused(format_message("%skey %s is %s, not %s", "", id, key_type_name(key->key.type),
                                  key_type_name(file.algorithm)));
  // Nothing the file says counts before its signature does.
  if (!verify_message(key->key, signature->substr(0, file.signed_length), file.signature))
    return refused(format_message("%sbad signature by key %s", "", id));
  const std::string digest = streebog256(update_ini);
  if (digest != file.digest)
    return refused(format_message("%sdigest mismatch: update.ini hashes to %.*s%s", "",
                                  static_cast<int>(digest_decoration.size()), digest_decoration.data(),
                                  hex_lower(digest).c_str()));
  if (now >= file.expires) return refused(format_message("%sexpired at %s", "", expiry_text(file.expires).c_str()));
  if (highest && file.serial < *highest)
    return refused(format_message("%solder serial: %llu is below %llu", "", static_cast<unsigned long long>(file.serial),
                                  static_cast<unsigned long long>(*highest)));
  signature_check_t check;
  check.ok = true;
  check.key_name = key->name;
  check.serial = file.serial;
  check.expires = file.expires;
  return check;
}

}  // namespace update
