// The ini engine: groups ("[name]") of "key=value" parameters, read into
// memory. Groups and keys may repeat; the lookups differ in what they do
// then: value_of reads the first group of a name and the last value of a key,
// value_in_groups lets later groups override earlier ones, the take lookups
// remove what they read so that what is left can be told as unknown.
// Names and keys compare byte for byte. Not synchronised: one reader owns it.
#pragma once
#include <cstddef>
#include <istream>
#include <list>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// A group looked up by name does not exist. what(): the group's name.
class CIniFileGroupNotFound : public std::runtime_error {
 public:
  explicit CIniFileGroupNotFound(const std::string& group) : std::runtime_error(group) {}
};

// A required key is absent. what(): the key.
class CIniFileVarNameNotFound : public std::runtime_error {
 public:
  CIniFileVarNameNotFound(const std::string& key, const std::string& group_name)
      : std::runtime_error(key), group(group_name) {}
  std::string group;
};

// A line is neither blank, comment, header nor parameter.
// what(): "Bad syntax at line N", counting every line from 1.
class CIniFileFormatError : public std::runtime_error {
 public:
  explicit CIniFileFormatError(size_t line);
};

class CIniFile {
 public:
  struct group_t {
    std::string name;
    std::map<std::string, std::list<std::string>> params;  // each key's values in file order

    // The last value of key; the default if absent, or with a null default
    // CIniFileVarNameNotFound.
    std::string value_of(const std::string& key, const char* default_value) const;
    // Appends (key, value) for every value of every key that begins with
    // prefix, in key order.
    void params_with_prefix(std::string_view prefix, std::list<std::pair<std::string, std::string>>& out) const;
    // Removes a key of one value and returns that value. Two or more values:
    // std::runtime_error "duplicate parameter : 'KEY', in section: NAME".
    // Absent: the default, or with a null default CIniFileVarNameNotFound.
    std::string take_value(const std::string& key, const char* default_value);
    // Appends all values of key in file order and removes the key; an absent
    // key appends nothing.
    void take_values(const std::string& key, std::list<std::string>& out);
  };
  using group_list_t = std::vector<group_t*>;  // non-owning, in file order

  // Parses the stream to its end; throws CIniFileFormatError, and nothing of
  // the stream is kept then.
  explicit CIniFile(std::istream& in);
  CIniFile(const CIniFile&) = delete;
  CIniFile& operator=(const CIniFile&) = delete;

  // The first group with a header of that name, or an empty group owned by
  // this object (a key before any header is not found here).
  group_t& find_group(const std::string& name);
  // Appends every group of exactly that name, the headerless one included.
  void groups_named(const std::string& name, group_list_t& out);
  // Appends every group whose name begins with prefix.
  void groups_with_prefix(std::string_view prefix, group_list_t& out);
  // The last value of key in the first group of that name. An absent group
  // gives the default, or with a null default CIniFileGroupNotFound.
  std::string value_of(const std::string& group, const std::string& key, const char* default_value) const;

  std::map<std::string, group_t*> groups_by_name;  // first headed group per name; points into groups
  std::list<group_t> groups;                       // every group in file order; owns them

 private:
  group_t empty_group_;
};

namespace update {

// Cuts spaces, tabs, CR and LF from both ends; a text that is blank or whose
// first other character is "#" becomes empty.
void trim_line(std::string& line);
// REQUIRES: line not empty. True if it begins with "!", "#" or ";".
bool is_comment_line(const std::string& line);
// True if the (trimmed) line is "[...]"; name gets the trimmed inside.
bool parse_group_header(const std::string& line, std::string& name);
// True if the line holds "key=value": line becomes the key, value the value.
bool split_parameter(std::string& line, std::string& value);

// The last value of key in the last group of the list that has it. An empty
// list: the default, or with a null default CIniFileGroupNotFound(group). No
// group with the key: the default, or CIniFileVarNameNotFound(key, group).
std::string value_in_groups(const CIniFile::group_list_t& groups, const std::string& group, const std::string& key,
                            const char* default_value);

}  // namespace update
