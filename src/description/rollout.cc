#include "description/rollout.h"

#include <cstdlib>

#include "platform/hash_file.h"
#include "platform/local_params.h"
#include "support/file_helpers.h"

namespace update {

bool parse_rollout_share(std::string_view text, unsigned& share) {
  if (!text.empty() && text.back() == '%') text.remove_suffix(1);
  unsigned whole = 0, hundredths = 0, digits = 0, decimals = 0;
  bool point = false;
  for (char c : text) {
    if (c == '.' && !point && digits > 0) {
      point = true;
    } else if (c >= '0' && c <= '9' && !point && digits < 3) {
      whole = whole * 10 + static_cast<unsigned>(c - '0');
      ++digits;
    } else if (c >= '0' && c <= '9' && point && decimals < 2) {
      hundredths += static_cast<unsigned>(c - '0') * (decimals == 0 ? 10 : 1);
      ++decimals;
    } else {
      return false;
    }
  }
  share = whole * 100 + hundredths;
  return digits > 0 && (!point || decimals > 0) && share <= rollout_places;
}

unsigned rollout_place(std::string_view machine, std::string_view file, std::string_view version) {
  platform::running_hash_t hash("$sha256:");
  // Each part ends in a NUL, which none of them holds: no two triples feed
  // the same bytes.
  for (std::string_view part : {machine, file, version}) {
    hash.add(part.data(), part.size());
    hash.add("", 1);
  }
  const std::string digest = hash.result();  // "$sha256:" and 64 hex digits
  if (digest.size() < 24) throw std::string("the hash library cannot place this machine in a rollout");
  return static_cast<unsigned>(std::strtoull(digest.substr(8, 16).c_str(), nullptr, 16) % rollout_places);
}

bool in_rollout(const std::string& share_text, const std::string& file, const std::string& version) {
  unsigned share = 0;
  if (!parse_rollout_share(share_text, share)) throw "bad rollout share: " + share_text + " (a percentage, 0 to 100)";
  const std::string path = LPARAMS::server::machine_id_file();
  std::string machine;
  if (!read_whole_file(path, machine)) throw "cannot read the machine's identity from " + path;
  machine = machine.substr(0, machine.find('\n'));
  if (machine.empty()) throw "no machine identity in " + path;
  return rollout_place(machine, file, version) < share;
}

}  // namespace update
