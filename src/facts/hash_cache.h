// Hash facts: an ordered map from a file path to its decorated hash strings.
// Not synchronised: the status's map is used under the status lock, a run's
// own map belongs to the update worker.
#pragma once
#include <cstddef>
#include <map>
#include <string>
#include <string_view>

#include "records/update_ini.h"

namespace update {

// The default hash type.
extern const char* const default_hash_type;  // "#GOST3411_256_2012:"

// Length of the decoration ("#T:" or "$T:") including the colon; 0 if the
// text is empty, begins with neither "#" nor "$", or has no colon.
size_t hash_prefix_length(std::string_view text);

struct hash_cache_t {
  // Keys sort bytewise, a shorter key before a longer one that begins with it.
  std::map<std::string, string_list_t> entries;

  // Makes sure the file behind spec's optional decoration has a string of
  // that type (default type without one), appending a placeholder if not.
  void declare(std::string_view spec);

  // Stores a decorated hash for a file; undecorated hashes and empty files
  // are dropped.
  void store(const std::string& file, const std::string& hash);

  // Finds or calculates the hash of the file behind spec's decoration in the
  // type of value (or of the decoration, or the default). value is in and out.
  static bool get(hash_cache_t& hashes, std::string_view spec, std::string& value);

  // Moves known values from old into the placeholders of fresh, per common
  // key; each such old entry is emptied.
  static void carry_over(hash_cache_t& fresh, hash_cache_t& old);
};

}  // namespace update
