// State the fuzz target shares with its minimal services.
#pragma once

namespace fuzz {
extern int reports;            // errors reported since the last reset
extern bool verify_downloads;  // the verification switch the reader sees
}  // namespace fuzz
