// The module's exported interface, as the daemon calls it.
#pragma once
#include <cstddef>
#include <list>
#include <string>

#include "platform/log.h"
#include "records/command.h"

namespace update {

// Filled by the host before the first call can happen; called only by the
// module, never checked for null.
struct callbacks_t {
  // From the status timer only, outside all locks.
  void (*on_status)(const std::string& cmdid, const std::string& status_xml);
  // From the bridge listener, code 8: the client's bytes, handed on.
  bool (*on_client_command)(size_t length, const char* bytes);
};

// How claim_update_dir ended.
enum class claim_t {
  held,    // this process holds the directory
  in_use,  // another process holds it
  failed,  // it could not be made or locked
};

// Takes the update directory for this process until it ends: an exclusive
// lock on the directory itself (made if need be), with no file in it, so
// that a directory the process cannot write is taken as well. Unless held,
// reason says why: "the update directory DIR is in use by process PID" (or
// "by another process" when the system does not tell), or the system's
// cause. Whatever the outcome the directory becomes the one every run uses;
// a run that finds the parameters moved elsewhere is refused. init takes it
// too and stays stopped only when another process holds it; a host asks
// first, to refuse before it writes anything of its own.
claim_t claim_update_dir(long& holder, std::string& reason);

// Begins a life of the module: takes the update directory, registers the
// listener and queues the rest of start-up; commands wait until it is done.
// Whatever a run of an earlier life still does, it cannot undo this start.
void init();
// Ends the life: nothing starts from now on, a run under way walks to its
// end, a pending command goes.
void fini();
callbacks_t& callbacks();

// Submits a command; returns at once. Only the first three arguments are used.
void process_async(Command command, const std::list<std::string>& uris, const std::string& cmdid,
                   unsigned short, const std::string&, const std::string&, const TLogIdent&);

// "update_state=..." and, on error, "update_msg=...". force false tells only
// news; a stopped module leaves both strings untouched.
void get_status(std::string& state, std::string& message, bool force);

// Appends the status XML text (no declaration line). Answers in every state.
void get_status_xml(std::string& text);

}  // namespace update
