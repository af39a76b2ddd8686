#include "sign/release.h"

#include <algorithm>
#include <cstdio>
#include <set>
#include <string_view>

#include "description/indexed_rules.h"
#include "description/patch_keys.h"
#include "facts/versions.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "platform/mapped_file.h"
#include "sign/patch_make.h"
#include "support/file_helpers.h"
#include "support/ini_file.h"
#include "support/patch_apply.h"

namespace update {

namespace {

constexpr int exit_ok = 0, exit_failed = 1;
constexpr const char* default_type = "#GOST3411_256_2012:";

// The description as lines, so that what the release does not change (order,
// comments, other keys) stays as the publisher wrote it.
struct description_t {
  struct line_t {
    std::string text;
    size_t block = 0;  // the section it stands in, 0 before any header
    std::string key, value;
  };
  std::vector<line_t> lines;
  std::vector<std::string> blocks{""};  // section names by block

  explicit description_t(const std::string& text) {
    for (size_t start = 0; start < text.size();) {
      size_t end = text.find('\n', start);
      end = end == std::string::npos ? text.size() : end + 1;
      line_t& line = lines.emplace_back();
      line.text = text.substr(start, end - start);
      start = end;
      std::string trimmed = line.text, name;
      trim_line(trimmed);
      if (parse_group_header(trimmed, name)) {
        blocks.push_back(name);
      } else if (!trimmed.empty() && !is_comment_line(trimmed) && split_parameter(trimmed, line.value)) {
        line.key = trimmed;
      }
      line.block = blocks.size() - 1;
    }
  }
  std::string text() const {
    std::string all;
    for (const auto& line : lines) all += line.text;
    return all;
  }
  std::vector<std::string> values(const std::vector<size_t>& in, const std::string& key) const {
    std::vector<std::string> found;
    for (const auto& line : lines)
      if (line.key == key && std::count(in.begin(), in.end(), line.block)) found.push_back(line.value);
    return found;
  }
  std::string last(const std::vector<size_t>& in, const std::string& key) const {
    const auto found = values(in, key);
    return found.empty() ? "" : found.back();
  }
  // Puts "key=value" lines for values where key stood first, or else behind
  // the last line of the first anchor key there is, or behind the blocks'
  // last parameter; every other line of key goes.
  void set(const std::vector<size_t>& in, const std::string& key, const std::vector<std::string>& values,
           const std::vector<std::string>& anchors) {
    auto inside = [&](const line_t& line) { return std::count(in.begin(), in.end(), line.block) != 0; };
    // The last line of key in the blocks (any key when empty), or none.
    auto last_line = [&](const std::string& wanted) {
      size_t found = lines.size();
      for (size_t i = 0; i < lines.size(); ++i)
        if (inside(lines[i]) && !lines[i].key.empty() && (wanted.empty() || lines[i].key == wanted)) found = i;
      return found;
    };
    size_t at = lines.size();
    for (size_t i = 0; i < lines.size() && at == lines.size(); ++i)
      if (inside(lines[i]) && lines[i].key == key) at = i;
    for (const std::string& anchor : anchors)
      if (at == lines.size() && last_line(anchor) != lines.size()) at = last_line(anchor) + 1;
    if (at == lines.size() && last_line("") != lines.size()) at = last_line("") + 1;
    if (at == lines.size() && !lines.empty() && lines.back().text.back() != '\n') lines.back().text += '\n';
    std::vector<line_t> made;
    for (const std::string& value : values) made.push_back({key + "=" + value + "\n", in.front(), key, value});
    std::vector<line_t> kept;
    for (size_t i = 0; i <= lines.size(); ++i) {
      if (i == at) kept.insert(kept.end(), made.begin(), made.end());
      if (i < lines.size() && !(inside(lines[i]) && lines[i].key == key)) kept.push_back(lines[i]);
    }
    lines = std::move(kept);
  }
};

// One file the description names, and where its lines are.
struct file_t {
  std::string name;   // the name an indexed patch line begins with
  std::string where;  // its path beside the description; empty when it cannot be told
  std::string hash, size;
  std::vector<patch_t> patches;  // uri as written
};

// The lines that several files may share: an indexed rule's lists, or one
// file section.
struct rule_t {
  std::vector<size_t> blocks;
  bool indexed = false;
  std::string hash_key, size_key, patch_key, anchor_key;
  std::vector<file_t> files{};
};

bool local_path_of(const std::string& uri) {
  return !uri.empty() && uri.find("://") == std::string::npos && uri.find("$(") == std::string::npos &&
         uri.find('?') == std::string::npos && uri.front() != '/';
}

std::vector<std::string> list_items(const std::string& text) {
  std::vector<std::string> items;
  std::string item;
  for (const char* cursor = text.c_str(); next_list_item(cursor, item);) items.push_back(item);
  return items;
}

// The rules of either format; a value that does not read is an error.
bool read_rules(const description_t& d, std::vector<rule_t>& rules, std::string& error) {
  std::string product;
  for (const auto& name : d.blocks)
    if (size_t at = name.find(".file="); at != std::string::npos && product.empty()) product = name.substr(0, at);
  auto patch_of = [&](const std::string& text, patch_t& patch) {
    if ((error = read_patch_value(text, patch)).empty()) return true;
    error = "bad patch line: " + error;
    return false;
  };
  for (size_t b = 1; b < d.blocks.size(); ++b) {
    const std::string& name = d.blocks[b];
    if (product.empty() || name.rfind(product + ".file=", 0) != 0) continue;
    const std::vector<size_t> in{b};
    if (d.last(in, "download_file") == "$(null)") continue;
    rule_t& rule =
        rules.emplace_back(rule_t{in, false, "download_hash", "filesize", "download_patch", "update_version"});
    file_t& file = rule.files.emplace_back();
    file.name = name.substr(product.size() + 6);
    const std::string uri = d.last(in, "download_uri");
    file.where = uri.empty() ? file.name : uri;
    if (!local_path_of(file.where)) file.where.clear();
    file.hash = d.last(in, "download_hash");
    file.size = d.last(in, "filesize");
    for (const std::string& value : d.values(in, "download_patch"))
      if (!patch_of(value, file.patches.emplace_back())) return false;
  }
  if (!product.empty()) return true;
  // The indexed format: the rules of the section that holds them.
  std::vector<size_t> in;
  for (size_t b = 1; b < d.blocks.size(); ++b)
    for (const auto& line : d.lines)
      if (line.block == b && (line.key == "version" || line.key.rfind("version.", 0) == 0)) {
        if (product.empty()) product = d.blocks[b];
        if (d.blocks[b] == product && (in.empty() || in.back() != b)) in.push_back(b);
      }
  for (unsigned index = 0; !in.empty(); ++index) {
    if (d.last(in, indexed_key("version", index)).empty()) {
      if (index == 0) continue;
      break;
    }
    const std::string files = d.last(in, indexed_key("file", index));
    if (files.empty()) continue;
    rule_t& rule = rules.emplace_back(rule_t{in, true, indexed_key("hash", index), indexed_key("filesize", index),
                                             indexed_key("patch", index), indexed_key("file", index)});
    const auto items = list_items(files), hashes = list_items(d.last(in, rule.hash_key)),
               sizes = list_items(d.last(in, rule.size_key));
    for (size_t i = 0; i < items.size(); ++i) {
      file_t& file = rule.files.emplace_back();
      file.where = local_path_of(items[i]) ? items[i] : "";
      file.name = items[i].substr(items[i].find_last_of("/\\") + 1);
      if (i < hashes.size()) file.hash = hashes[i];
      if (i < sizes.size()) file.size = sizes[i];
    }
    for (const std::string& value : d.values(in, rule.patch_key)) {
      const size_t comma = value.find(',');
      std::string name = value.substr(0, comma);
      while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.pop_back();
      while (!name.empty() && (name.front() == ' ' || name.front() == '\t')) name.erase(0, 1);
      file_t* owner = nullptr;
      for (auto& file : rule.files)
        if (file.name == name) owner = &file;
      if (!owner || comma == std::string::npos) {
        error = "patch line for no file of the rule: " + value;
        return false;
      }
      if (!patch_of(value.substr(comma + 1), owner->patches.emplace_back())) return false;
    }
  }
  return true;
}

std::string directory_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

// The file's hash type: the one its line names, else the default.
std::string type_of(const file_t& file) {
  return !file.hash.empty() && (file.hash[0] == '#' || file.hash[0] == '$') && !getHashTypeDecorStr(file.hash).empty()
             ? file.hash.substr(0, file.hash.find(':') + 1)
             : default_type;
}

bool hash_file(const std::string& path, const std::string& type, std::string& hash) {
  return HashFileChecker::CalcHash(path, type, hash);
}

// The file's hash and size now, and a patch from each previous version.
bool release_file(const std::string& dir, const std::vector<std::string>& previous, file_t& file) {
  const std::string path = dir + file.where, type = type_of(file);
  if (!platform::path_exists(path.c_str()) || !hash_file(path, type, file.hash)) {
    std::fprintf(stderr, "corvid-update-sign: cannot read %s\n", path.c_str());
    return false;
  }
  const uint64_t size = file_size(path);
  file.size = std::to_string(size);
  std::printf("%s: %s bytes, %s\n", file.where.c_str(), file.size.c_str(), file.hash.c_str());
  file.patches.clear();
  std::set<std::string> bases;
  for (const std::string& old_dir : previous) {
    const std::string base = old_dir + "/" + file.where;
    std::string base_hash, error;
    if (!platform::path_exists(base.c_str())) continue;
    // In the file's own type, the one an agent recorded when it downloaded
    // the base: then it picks the patch without reading the base.
    if (!hash_file(base, type, base_hash)) {
      std::fprintf(stderr, "corvid-update-sign: cannot read %s\n", base.c_str());
      return false;
    }
    // Also from a base with the same bytes: the agent then keeps its copy.
    if (!bases.insert(base_hash).second) continue;
    const std::string digest = base_hash.substr(base_hash.find(':') + 1, 16),
                      where = file.where + "." + digest + ".patch";
    patch_t patch{base_hash, where, 0, ""};
    if (!make_patch_file(base, path, dir + where, error) || !hash_file(dir + where, type, patch.hash)) {
      std::fprintf(stderr, "corvid-update-sign: no patch from %s: %s\n", base.c_str(), error.c_str());
      return false;
    }
    patch.size = file_size(dir + where);
    if (patch.size >= size) {
      std::printf("  from %s: a patch would not be smaller; left out\n", base.c_str());
      platform::remove_file((dir + where).c_str());
      continue;
    }
    std::printf("  from %s: %s, %llu bytes\n", base.c_str(), where.c_str(),
                static_cast<unsigned long long>(patch.size));
    file.patches.push_back(patch);
  }
  return true;
}

std::string patch_value(const patch_t& patch) {
  return patch.base_hash + ", " + std::to_string(patch.size) + ", " + patch.hash + ", " + patch.uri;
}

void write_rule(const rule_t& rule, description_t& d) {
  std::vector<std::string> hashes, sizes, patches;
  for (const file_t& file : rule.files) {
    hashes.push_back(file.hash);
    sizes.push_back(file.size);
    for (const patch_t& patch : file.patches)
      patches.push_back(rule.indexed ? file.name + ", " + patch_value(patch) : patch_value(patch));
  }
  auto joined = [&](const std::vector<std::string>& items) {
    if (!rule.indexed) return items;
    std::string text;
    for (const auto& item : items) text += (text.empty() ? "" : ",") + item;
    return std::vector<std::string>{text};
  };
  d.set(rule.blocks, rule.hash_key, joined(hashes), {rule.anchor_key});
  d.set(rule.blocks, rule.size_key, joined(sizes), {rule.hash_key});
  d.set(rule.blocks, rule.patch_key, patches, {rule.size_key});
}

}  // namespace

int run_release(const std::vector<std::string>& arguments, const std::function<int(const std::string&)>& sign_file) {
  const std::string dir = arguments[0] + "/", path = dir + "update.ini", staged = path + ".new";
  const std::vector<std::string> previous(arguments.begin() + 1, arguments.end());
  std::string text, error;
  if (!read_whole_file(path, text)) {
    std::fprintf(stderr, "corvid-update-sign: cannot read %s\n", path.c_str());
    return exit_failed;
  }
  description_t description(text);
  std::vector<rule_t> rules;
  if (!read_rules(description, rules, error)) {
    std::fprintf(stderr, "corvid-update-sign: %s: %s\n", path.c_str(), error.c_str());
    return exit_failed;
  }
  for (rule_t& rule : rules) {
    bool released = false;  // a rule none of whose files is here keeps its lines as they are
    for (file_t& file : rule.files) {
      if (file.where.empty()) {
        std::printf("%s: its place cannot be told from the description; its lines stay\n", file.name.c_str());
        continue;
      }
      if (!release_file(dir, previous, file)) return exit_failed;
      released = true;
    }
    if (released) write_rule(rule, description);
  }
  if (write_file_atomically(staged, {description.text()}) != atomic_write_t::done) {
    std::fprintf(stderr, "corvid-update-sign: cannot write %s\n", staged.c_str());
    return exit_failed;
  }
  const int signed_status = sign_file(staged);
  const bool placed = signed_status == exit_ok && move_file(staged + ".sig", path + ".sig") && move_file(staged, path);
  platform::remove_file(staged.c_str());
  platform::remove_file((staged + ".sig").c_str());
  if (signed_status != exit_ok) return signed_status;
  if (!placed) {
    std::fprintf(stderr, "corvid-update-sign: cannot put %s in place\n", staged.c_str());
    return exit_failed;
  }
  std::printf("%s: released\n", path.c_str());
  return exit_ok;
}

bool verify_release(const std::string& path, const std::vector<std::string>& previous) {
  std::string text, error;
  std::vector<rule_t> rules;
  if (!read_whole_file(path, text) || !read_rules(description_t(text), rules, error)) {
    std::printf("%s: %s\n", path.c_str(), error.empty() ? "cannot read" : error.c_str());
    return false;
  }
  const std::string dir = directory_of(path);
  unsigned files = 0, patches = 0, applied = 0, wrong = 0;
  auto finding = [&](const std::string& where, const std::string& what) {
    std::printf("%s: %s\n", where.c_str(), what.c_str());
    ++wrong;
    return false;
  };
  // A file as its line describes it: there, of its size and hash.
  auto check = [&](const std::string& where, const std::string& hash, const std::string& size) {
    std::string calculated;
    if (!platform::path_exists((dir + where).c_str()) || !hash_file(dir + where, hash, calculated))
      return finding(where, "missing");
    if (size.empty() || hash.empty()) return finding(where, "no size or no hash in the description");
    if (size != std::to_string(file_size(dir + where))) return finding(where, "size is not " + size);
    if (!hash_equal(hash, calculated)) return finding(where, "hash is " + calculated + ", not " + hash);
    return true;
  };
  for (const rule_t& rule : rules)
    for (const file_t& file : rule.files) {
      if (file.where.empty()) continue;
      ++files;
      if (!check(file.where, file.hash, file.size)) continue;
      for (const patch_t& patch : file.patches) {
        ++patches;
        if (!local_path_of(patch.uri)) continue;
        platform::mapped_file_t bytes, base;
        patch_header_t header;
        if (bytes.map((dir + patch.uri).c_str()) && !read_patch_header(bytes.data(), bytes.size(), header, error)) {
          finding(patch.uri, "not a patch: " + error);
          continue;
        }
        if (!check(patch.uri, patch.hash, std::to_string(patch.size))) continue;
        if (std::to_string(header.result_size) != file.size) {
          finding(patch.uri, "makes " + std::to_string(header.result_size) + " bytes, not " + file.size);
          continue;
        }
        for (const std::string& old_dir : previous) {
          const std::string base_path = old_dir + "/" + file.where;
          std::string base_hash, result;
          if (!hash_file(base_path, patch.base_hash, base_hash) || !hash_equal(base_hash, patch.base_hash) ||
              !base.map(base_path.c_str()))
            continue;
          platform::running_hash_t hash(file.hash);
          error = apply_patch(base.data(), base.size(), bytes.data(), bytes.size(), header.result_size,
                              [&](const unsigned char* b, size_t n) {
                                hash.add(b, n);
                                return true;
                              });
          if (error.empty() && !hash_equal(result = hash.result(), file.hash)) error = "result hashes to " + result;
          if (!error.empty()) finding(patch.uri, "on " + base_path + ": " + error);
          applied += error.empty();
          break;
        }
      }
    }
  std::printf("%s: %u files, %u patches (%u applied to their base), %u wrong\n", path.c_str(), files, patches, applied,
              wrong);
  return wrong == 0;
}

}  // namespace update
