// Staged rollouts: a description gives a file's section, or a rule of the
// indexed format, to a share of the machines. Each machine has a place among
// rollout_places for a file at a version, drawn from its identity, the
// file's name and the version: a machine keeps its place, so raising the
// share only adds machines, and a new version draws the places anew, so it
// reaches other machines than the last one did.
#pragma once
#include <string>
#include <string_view>

namespace update {

// A share is counted in hundredths of a percent.
inline constexpr unsigned rollout_places = 10000;

// "N" or "N%", N from 0 to 100 with at most two decimals; share is N in
// hundredths of a percent. False for any other text.
bool parse_rollout_share(std::string_view text, unsigned& share);

// The machine's place, below rollout_places. A machine is in a share when
// its place is below the share.
unsigned rollout_place(std::string_view machine, std::string_view file, std::string_view version);

// Whether this machine is in the share that share_text gives for the file
// at version. The machine's identity is the first line of
// LPARAMS::server::machine_id_file(). Throws a text for a malformed share
// or an identity that cannot be read, which ends the load.
bool in_rollout(const std::string& share_text, const std::string& file, const std::string& version);

}  // namespace update
