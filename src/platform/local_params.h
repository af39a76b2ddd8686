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
};

}  // namespace LPARAMS
