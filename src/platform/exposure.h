// Whether anyone but the calling user and the administrator (root) could
// change what a path names: what the daemon's state, its keys and the
// bridge's socket are judged by. Safe from any thread. The agent's library
// carries the implementation, so that the bridge and the module share it.
#pragma once
#include <string>

namespace update::platform {

// Who besides the calling user and the administrator (root) could change
// what a path names.
enum class exposure_t {
  none,           // no one else
  foreign_owner,  // the object, or a directory on the way, belongs to another user
  others_write,   // its group or others may write it; a directory on the way
                  // only counts without the sticky bit, which keeps others
                  // from renaming what is not theirs
  unexamined,     // stat failed; error tells why
};
struct exposure_report_t {
  exposure_t kind = exposure_t::none;
  std::string path;   // the object that failed
  unsigned owner = 0;  // its owner's user id
  unsigned mode = 0;   // its permission bits
  int error = 0;       // errno of unexamined
};

// A directory and every directory on the way to it, as written and as
// resolved through symbolic links. A directory that does not exist yet is
// judged by those that would hold it. The first failure is reported.
exposure_report_t directory_exposure(const char* path);
// A file by itself (a link is followed), not the directories on its way.
exposure_report_t file_exposure(const char* path);

// The report in words: empty for none, else the object and why, e.g.
// "DIR belongs to user 65534, not to root or to this process's user".
std::string exposure_text(const exposure_report_t& report);

}  // namespace update::platform
