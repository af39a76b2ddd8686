// OpenSSL's PEM key files of the two kinds, so that a key moves between
// OpenSSL (with the GOST engine for GOST keys) and the key files of
// support/key_file.h without arithmetic. A "PRIVATE KEY" holds PKCS #8, a
// "PUBLIC KEY" a SubjectPublicKeyInfo, in base64 between the BEGIN and END
// lines. Only the one DER form OpenSSL 3 writes for each is read: a fixed
// prefix naming the algorithm (for GOST also the parameter set
// id-tc26-gost-3410-12-256-paramSetA), then the key's raw bytes as
// platform/signature.h lays them out. Nothing here reports or raises.
#pragma once
#include <string>
#include <string_view>

#include "platform/signature.h"

namespace update {

// The PEM text of a secret key (without its public key, as OpenSSL writes
// it) or of a public key, in lines of 64 base64 digits.
std::string pem_secret_key(const secret_key_t& key);
std::string pem_public_key(const public_key_t& key);

// Reads either. A "PRIVATE KEY" fills key, its public key derived from the
// secret; a "PUBLIC KEY" fills key.public_key and empties key.secret. False,
// with key unchanged and a short lower-case reason, for any other text.
bool read_pem_key(std::string_view text, secret_key_t& key, std::string& reason);

}  // namespace update
