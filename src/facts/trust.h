// What the agent trusts a source's description by: the public keys of the
// trusted keys directory, and the highest serial accepted from each source
// so far, kept in the update directory. Nothing here reports: callers word
// the errors, which name the directory or the file.
#pragma once
#include <string>
#include <vector>

#include "support/key_file.h"
#include "support/serial_store.h"

namespace update {

// The highest accepted serials, in the update directory (text of
// support/serial_store.h).
inline constexpr const char* serials_file_name = "corvid_update_serials";

// The trusted keys directory: LPARAMS::server::trusted_keys_dir(), or
// agentEtcDir() + "/update-keys" when that is empty; named tells which.
std::string trusted_keys_path(bool& named);

// Reads the trusted keys. The default directory may be absent (no keys); a
// named one must be readable. False, with error naming the directory or the
// key file, if the directory or one of its *.pub files cannot be read, or if
// someone besides root and this process's user could change either
// (directory_exposure_text, file_exposure_text).
bool load_trusted_keys(std::vector<trusted_key_t>& keys, std::string& error);

// Reads the serials file at path: a missing file is an empty store. False,
// with error naming the file, if it cannot be read or is damaged; serials
// is untouched then.
bool read_accepted_serials(const std::string& path, serial_store_t& serials, std::string& error);

// Replaces the serials file at path so that a crash or a power loss leaves
// the old one or the new one, and the new one lasts once this returns true
// (companion, data sync, rename, directory sync). On false the old file
// stands.
bool save_accepted_serials(const std::string& path, const serial_store_t& serials);

// What one run checks descriptions against, read at its start.
struct trust_t {
  std::vector<trusted_key_t> keys;
  serial_store_t serials;    // read only when there are keys
  std::string serials_path;  // the update directory + serials_file_name
  // When not empty, every source fails its check with this: a key or the
  // serials that cannot be read must neither turn the check off nor reset
  // a serial.
  std::string refusal;
};

// Fills trust for a run whose update directory is update_path (ending in
// its separator). Never fails: what cannot be read becomes trust.refusal.
void read_trust(const std::string& update_path, trust_t& trust);

// True when sources must pass the signature check: there are trusted keys,
// or they or the serials could not be read.
bool checks_signatures(const trust_t& trust);

}  // namespace update
