// Local parameters of the agent, each read under the object's own lock.
#pragma once
#include <string>

namespace LPARAMS {

class server {
 public:
  // The configured update directory; empty means the default.
  static std::string update_dir();
  static void set_update_dir(const std::string& dir);

  // The switch for verification of downloaded files, and the display name of
  // that parameter, as a user would turn it off.
  static bool verify_downloads();
  static void set_verify_downloads(bool on);
  static std::string verify_downloads_name();

  // The certificate authorities HTTPS servers are checked against, as a
  // file of PEM certificates; empty means the system's own.
  static std::string ca_file();
  static void set_ca_file(const std::string& path);

  // The longest a source's update.ini, or its signature, may take to fetch,
  // in seconds, however steadily a server sends it.
  static unsigned description_timeout();
  static void set_description_timeout(unsigned seconds);

  // The directory of the public keys (*.pub) that every source's update.ini
  // must be signed with; empty means the default, "update-keys" in the
  // agent's etc directory, which may be absent. A directory named here must
  // exist: a typo must not turn the check off.
  static std::string trusted_keys_dir();
  static void set_trusted_keys_dir(const std::string& dir);

  // The file that holds this machine's identity, which places it in a
  // staged rollout (the "rollout" condition); empty means /etc/machine-id.
  static std::string machine_id_file();
  static void set_machine_id_file(const std::string& path);
};

}  // namespace LPARAMS
