// The two gates of a run: whether the download and the install step have
// anything to do. They look at the status's files, not at the run's plans,
// so an entry that no rule of this run names may open a gate for nothing.
#pragma once
#include "status/status.h"

namespace update {

// Takes the lock. Opens on the first file that is available, not skipped,
// to be downloaded (no skip_downloading) and in state 2 or 3: then result
// becomes 2 and client_visible true, without a save.
bool open_download_gate(status_t& status);

// Takes the lock. Clears current_file, then opens on the first file that is
// available, not skipped, without error, and in state 4 or (installed
// without download) in state 2: then result becomes 3 and client_visible
// true, without a save.
bool open_install_gate(status_t& status);

}  // namespace update
