// The key files of the signing program and of the agent's trusted keys: see
// support/signature_file.h for their text. Reading checks everything a key
// can be checked for; nothing here reports or raises.
#pragma once
#include <string>
#include <string_view>
#include <vector>

#include "platform/signature.h"

namespace update {

// "ed25519" or "gost2012-256", as the files name the kinds.
const char* key_type_name(key_type_t type);
bool key_type_named(std::string_view name, key_type_t& type);

std::string public_key_text(const public_key_t& key);
std::string secret_key_text(const secret_key_t& key);

// False with a short lower-case reason if the text is not such a file, its
// public key is not a point on its curve, or (secret) its secret does not
// belong to its public key.
bool read_public_key(std::string_view text, public_key_t& key, std::string& reason);
bool read_secret_key(std::string_view text, secret_key_t& key, std::string& reason);
// Either file: a secret key fills key, a public key fills key.public_key and
// empties key.secret.
bool read_key_file(std::string_view text, secret_key_t& key, std::string& reason);

struct trusted_key_t {
  std::string name;  // its file name in the directory, e.g. "release.pub"
  std::string id;    // key_id(key)
  public_key_t key;
};

// Reads every "*.pub" file of the directory dir, in the order of their
// names; other names are passed over. False, with error naming the
// directory or the file, if the directory cannot be read or one of those
// files is not a public key: a key file that fails must not quietly leave
// a source to a smaller set of keys. An empty list is no error.
bool read_trusted_keys(const std::string& dir, std::vector<trusted_key_t>& keys, std::string& error);

}  // namespace update
