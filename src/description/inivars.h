// Named text variables with $(NAME) substitution, and the two computed kinds:
// hash_of.X (the hash of the file that X names) and version_of.X (the version
// of the file that X names), evaluated only when a text refers to them.
// Not synchronised: each set belongs to one reading of a description.
#pragma once
#include <cstddef>
#include <list>
#include <string>
#include <string_view>
#include <utility>

#include "records/update_ini.h"
#include "support/ini_file.h"

namespace update {

struct hash_cache_t;

struct inivar_t {
  std::string name;
  std::string value;

  // Gives a variable its value before it is used.
  class apply_cb_t {
   public:
    virtual ~apply_cb_t() = default;
    virtual bool apply(inivar_t& var) = 0;
  };
};

// The delimiters of a variable reference, "$(" and ")".
using delimiters_t = std::pair<std::string_view, std::string_view>;
extern const delimiters_t variable_delimiters;

// An ordered list of variables in insertion order; names need not be unique.
class inivars_t : public inivar_t::apply_cb_t {
 public:
  bool apply(inivar_t& var) override;  // plain variables have their value: true

  void add(const std::string& name, const std::string& value);
  // The value of the first variable of exactly this name, or an empty view.
  std::string_view find(std::string_view name) const;
  // Substitutes references in s, up to three passes over the set; true if at
  // least one was made. A token of no variable stays as it is. Throws a
  // text when s would outgrow 64 KiB, and what a computed set throws when it
  // cannot give a referred variable its value.
  bool apply(std::string& s, const delimiters_t& delimiters);
  // apply on the value of every variable of other, which may be this set.
  bool apply_to_values(inivars_t& other, const delimiters_t& delimiters);
  // apply on every text of the list.
  void apply_to_list(string_list_t& list, const delimiters_t& delimiters);
  // apply on the last value of every parameter of the section, in place.
  void apply_to_section(CIniFile::group_t& section, const delimiters_t& delimiters);
  // Appends, per variable of source, an empty variable prefix + its name.
  void add_prefixed(const inivars_t& source, const std::string& prefix);

  std::list<inivar_t> vars;
};

// Where a hash_of. variable takes the hash type to compute in.
class hash_type_src_t {
 public:
  virtual ~hash_type_src_t() = default;
  // Writes a decoration into out, or leaves it; throws a text for a type
  // that the hash library does not know.
  virtual void get(std::string_view name, std::string& out) = 0;
};

// The hash_type of the first "T.hash_to_version.NAME" section whose NAME
// begins with the asked name; nothing without such a section or type.
class hash_type_from_ini_t : public hash_type_src_t {
 public:
  hash_type_from_ini_t(const CIniFile::group_list_t& hash_sections, size_t name_offset)
      : hash_sections(hash_sections), name_offset(name_offset) {}
  void get(std::string_view name, std::string& out) override;

  const CIniFile::group_list_t& hash_sections;  // not owned
  size_t name_offset;                           // where NAME begins in a section's name
};

// The type that a text names: a decoration, a decorated hash, a type name
// or a bare digest of a known length.
class hash_type_from_str_t : public hash_type_src_t {
 public:
  explicit hash_type_from_str_t(const std::string& text) : text(text) {}
  void get(std::string_view name, std::string& out) override;

  const std::string& text;  // not owned
};

// hash_of.X for every variable X of base, computed on first use through the
// run's hash cache and kept. A failure is thrown as a text.
class hash_of_inivars_t : public inivars_t {
 public:
  hash_of_inivars_t(inivars_t& base, hash_cache_t& hashes);
  using inivars_t::apply;
  bool apply(inivar_t& var) override;
  // Appends name to base, and hash_of.name standing for the bare text of
  // name: such a companion is never computed.
  void add_value(const std::string& name, const std::string& value);

  inivars_t& base;                          // not owned
  hash_cache_t& hashes;                     // not owned
  hash_type_src_t* type_source = nullptr;   // not owned; replaceable at any time
};

// version_of.X for every variable X of base: the version record of the file
// section X, or else the version that a "T.hash_to_version." section gives
// for the hash of the file that X names. Computed on first use and kept.
class version_of_inivars_t : public inivars_t {
 public:
  version_of_inivars_t(inivars_t& base, hash_cache_t& hashes, const CIniFile::group_list_t& hash_sections,
                       const CIniFile::group_list_t& file_sections, size_t name_offset, const std::string& dir);
  using inivars_t::apply;
  bool apply(inivar_t& var) override;

  inivars_t& base;                               // not owned
  hash_cache_t& hashes;                          // not owned
  const CIniFile::group_list_t& hash_sections;   // not owned
  const CIniFile::group_list_t& file_sections;   // not owned
  size_t name_offset;  // NAME in hash_sections; in file_sections 11 less
  const std::string& dir;                        // not owned
};

}  // namespace update
