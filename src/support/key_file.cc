#include "support/key_file.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "support/file_helpers.h"
#include "support/message_format.h"
#include "support/text_fields.h"

namespace update {

namespace {

constexpr std::string_view public_header = "corvid-update-public-key 1";
constexpr std::string_view secret_header = "corvid-update-secret-key 1";

std::string hex_refusal(const char* field, size_t bytes) {
  return format_message("%s%s is not %zu hex digits", "", field, 2 * bytes);
}

// The lines both files share: the header, the kind and the first key.
bool read_head(text_lines_t& lines, std::string_view header, key_type_t& type, std::string& key, std::string& reason) {
  std::string_view name, hex;
  if (!lines.exactly(header, reason) || !lines.field("algorithm", name, reason)) return false;
  if (!key_type_named(name, type)) {
    reason = "algorithm is not ed25519 or gost2012-256";
    return false;
  }
  if (!lines.field("key", hex, reason)) return false;
  const size_t size = header == public_header ? public_key_size(type) : secret_key_size;
  if (!bytes_of_hex(hex, size, key)) {
    reason = hex_refusal("key", size);
    return false;
  }
  return true;
}

}  // namespace

const char* key_type_name(key_type_t type) { return type == key_type_t::ed25519 ? "ed25519" : "gost2012-256"; }

bool key_type_named(std::string_view name, key_type_t& type) {
  for (key_type_t t : {key_type_t::ed25519, key_type_t::gost2012_256}) {
    if (name != key_type_name(t)) continue;
    type = t;
    return true;
  }
  return false;
}

std::string public_key_text(const public_key_t& key) {
  return std::string(public_header) + "\nalgorithm: " + key_type_name(key.type) + "\nkey: " + hex_lower(key.bytes) +
         "\n";
}

std::string secret_key_text(const secret_key_t& key) {
  return std::string(secret_header) + "\nalgorithm: " + key_type_name(key.public_key.type) +
         "\nkey: " + hex_lower(key.secret) + "\npublic: " + hex_lower(key.public_key.bytes) + "\n";
}

bool read_public_key(std::string_view text, public_key_t& key, std::string& reason) {
  text_lines_t lines(text);
  public_key_t read;
  if (text.substr(0, secret_header.size()) == secret_header) {
    reason = "a secret key, not a public key";
    return false;
  }
  if (!read_head(lines, public_header, read.type, read.bytes, reason) || !lines.at_end(reason)) return false;
  if (!valid_public_key(read)) {
    reason = "key is not a point on the curve";
    return false;
  }
  key = std::move(read);
  return true;
}

bool read_secret_key(std::string_view text, secret_key_t& key, std::string& reason) {
  text_lines_t lines(text);
  secret_key_t read;
  std::string_view hex;
  if (text.substr(0, public_header.size()) == public_header) {
    reason = "a public key, not a secret key";
    return false;
  }
  if (!read_head(lines, secret_header, read.public_key.type, read.secret, reason) ||
      !lines.field("public", hex, reason))
    return false;
  const size_t size = public_key_size(read.public_key.type);
  if (!bytes_of_hex(hex, size, read.public_key.bytes)) {
    reason = hex_refusal("public", size);
    return false;
  }
  if (!lines.at_end(reason)) return false;
  std::string probe;
  if (!valid_public_key(read.public_key) || !sign_message(read, secret_header, probe)) {
    reason = "the secret key does not belong to its public key";
    return false;
  }
  key = std::move(read);
  return true;
}

bool read_key_file(std::string_view text, secret_key_t& key, std::string& reason) {
  if (text.substr(0, secret_header.size()) == secret_header) return read_secret_key(text, key, reason);
  secret_key_t read;
  if (!read_public_key(text, read.public_key, reason)) return false;
  key = std::move(read);
  return true;
}

bool read_trusted_keys(const std::string& dir, std::vector<trusted_key_t>& keys, std::string& error) {
  namespace fs = std::filesystem;
  std::error_code failure;
  std::vector<fs::path> files;
  for (fs::directory_iterator it(dir, failure), end; !failure && it != end; it.increment(failure))
    if (it->path().extension() == ".pub") files.push_back(it->path());
  if (failure) {
    error = format_message("%scannot read the directory %s: %s", "", dir.c_str(), failure.message().c_str());
    return false;
  }
  std::sort(files.begin(), files.end());
  std::vector<trusted_key_t> read;
  for (const fs::path& file : files) {
    trusted_key_t key{file.filename().string(), "", {}};
    // Opened only when regular: a named pipe would never answer.
    const bool regular = fs::is_regular_file(file, failure);
    std::string text, reason = regular ? "cannot be read" : "not a regular file";
    if (!regular || !read_whole_file(file.string(), text) || !read_public_key(text, key.key, reason)) {
      error = format_message("%s%s: %s", "", file.string().c_str(), reason.c_str());
      return false;
    }
    key.id = key_id(key.key);
    read.push_back(std::move(key));
  }
  keys = std::move(read);
  return true;
}

}  // namespace update
