// The agent's log: every TLogMessage becomes one line of the log file and is
// shown to the observers. A line is UTC time, id and the attributes, split by
// tabs; tabs, line ends and other control bytes inside an attribute are
// escaped so that one record always stays one line.
#include "platform/log.h"

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "agent/agent.h"
#include "agent/bridge.h"

namespace agent {

namespace {

constexpr gid_t no_group = static_cast<gid_t>(-1);

struct observer_entry_t {
  int handle = 0;
  log_observer_t observer;
  // Calls are not serialised: an observer may run on several threads at
  // once, and one holding a lock of its own must not block another sender.
  // Removal waits for the calls under way, except the remover's own.
  std::mutex lock;
  std::condition_variable idle;
  int calls = 0;       // guarded by lock
  bool active = true;  // guarded by lock
};

// The observers this thread is inside of, innermost last.
thread_local std::vector<const observer_entry_t*> calling;

struct sink_t {
  std::mutex file_lock;
  FILE* file = nullptr;  // guarded by file_lock
  std::string path;      // guarded by file_lock; what reopen_log opens again
  std::mutex observers_lock;
  std::vector<std::shared_ptr<observer_entry_t>> observers;  // guarded by observers_lock
  int next_handle = 1;                                       // guarded by observers_lock
};

// Never destroyed: records may still come from threads and static
// destructors while the process exits.
sink_t& sink() {
  static sink_t& s = *new sink_t;
  return s;
}

void append_time(std::string& line) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  gmtime_r(&now.tv_sec, &parts);
  char text[40];
  size_t n = strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  snprintf(text + n, sizeof text - n, ".%03ldZ", now.tv_nsec / 1000000);
  line += text;
}

// The missing directories on the way are the owner's alone; the log's own
// directory, when made here, lets its group in to read.
void make_parent_directory(const std::string& path, gid_t group) {
  const size_t last = path.rfind('/');
  for (size_t at = path.find('/', 1); at != std::string::npos && at <= last; at = path.find('/', at + 1)) {
    const std::string level = path.substr(0, at);
    const bool own = at == last;
    if (::mkdir(level.c_str(), own ? S_IRWXU | S_IRGRP | S_IXGRP : S_IRWXU) == 0 && own && group != no_group)
      (void)!::chown(level.c_str(), static_cast<uid_t>(-1), group);
  }
}

// Appending, never through a link and only to a regular file with one name;
// readable by the owner and the group at most, whatever mode an older log had.
FILE* open_log_file(const std::string& path, gid_t group) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK,
                        S_IRUSR | S_IWUSR | S_IRGRP);
  if (fd < 0) return nullptr;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1 || ::fcntl(fd, F_SETFL, O_APPEND) != 0) {
    ::close(fd);
    return nullptr;
  }
  if (st.st_uid == ::geteuid()) {
    if (group != no_group) (void)!::fchown(fd, static_cast<uid_t>(-1), group);
    (void)!::fchmod(fd, st.st_mode & (S_IRUSR | S_IWUSR | S_IRGRP));
  }
  FILE* file = ::fdopen(fd, "a");
  if (!file) ::close(fd);
  return file;
}

}  // namespace

void append_escaped(std::string& line, const std::string& text) {
  static const char hex[] = "0123456789abcdef";
  for (unsigned char c : text) {
    switch (c) {
      case '\\': line += "\\\\"; break;
      case '\n': line += "\\n"; break;
      case '\r': line += "\\r"; break;
      case '\t': line += "\\t"; break;
      default:
        if (c < 0x20 || c == 0x7f) {
          line += "\\x";
          line += hex[c >> 4];
          line += hex[c & 15];
        } else {
          line += static_cast<char>(c);
        }
    }
  }
}

bool open_log(const std::string& path, const std::string& group_name) {
  gid_t group = no_group;
  if (!group_name.empty() && !group_id(group_name, group)) group = no_group;
  make_parent_directory(path, group);
  FILE* file = open_log_file(path, group);
  if (!file) return false;
  std::lock_guard<std::mutex> hold(sink().file_lock);
  if (sink().file) std::fclose(sink().file);
  sink().file = file;
  sink().path = path;
  return true;
}

bool reopen_log() {
  std::string path;
  {
    std::lock_guard<std::mutex> hold(sink().file_lock);
    if (!sink().file) return false;
    path = sink().path;
  }
  // A line sent meanwhile goes whole to the old file, which a rotation has
  // only renamed: nothing is lost or torn.
  return open_log(path);
}

void close_log() {
  std::lock_guard<std::mutex> hold(sink().file_lock);
  if (sink().file) std::fclose(sink().file);
  sink().file = nullptr;
}

int add_log_observer(log_observer_t observer) {
  auto entry = std::make_shared<observer_entry_t>();
  entry->observer = std::move(observer);
  std::lock_guard<std::mutex> hold(sink().observers_lock);
  entry->handle = sink().next_handle++;
  sink().observers.push_back(entry);
  return entry->handle;
}

void remove_log_observer(int handle) {
  std::shared_ptr<observer_entry_t> gone;
  {
    std::lock_guard<std::mutex> hold(sink().observers_lock);
    auto& list = sink().observers;
    for (auto it = list.begin(); it != list.end(); ++it) {
      if ((*it)->handle == handle) {
        gone = *it;
        list.erase(it);
        break;
      }
    }
  }
  if (!gone) return;
  const auto own = std::count(calling.begin(), calling.end(), gone.get());
  std::unique_lock<std::mutex> hold(gone->lock);
  gone->active = false;
  gone->idle.wait(hold, [&] { return gone->calls == own; });
}

void send_log_record(uint16_t id, const std::vector<std::string>& texts) {
  std::string line;
  line.reserve(64);
  append_time(line);
  line += '\t';
  line += std::to_string(id);
  for (const auto& text : texts) {
    line += '\t';
    append_escaped(line, text);
  }
  line += '\n';
  {
    std::lock_guard<std::mutex> hold(sink().file_lock);
    if (sink().file) {
      std::fwrite(line.data(), 1, line.size(), sink().file);
      std::fflush(sink().file);
    }
  }
  // Observers run outside every lock of the sink: a record may be sent while
  // the module holds its own locks, and an observer may take those.
  std::vector<std::shared_ptr<observer_entry_t>> observers;
  {
    std::lock_guard<std::mutex> hold(sink().observers_lock);
    observers = sink().observers;
  }
  for (const auto& entry : observers) {
    {
      std::lock_guard<std::mutex> hold(entry->lock);
      if (!entry->active) continue;
      ++entry->calls;
    }
    calling.push_back(entry.get());
    try {
      entry->observer(id, texts);
    } catch (...) {
      // A failing observer must not take the sender down.
    }
    calling.pop_back();
    std::lock_guard<std::mutex> hold(entry->lock);
    --entry->calls;
    entry->idle.notify_all();
  }
}

}  // namespace agent

TLogMessage::~TLogMessage() {
  try {
    std::vector<std::string> texts;
    texts.reserve(attrs_.size());
    for (const auto& attr : attrs_) texts.push_back(attr.second);
    agent::send_log_record(id_, texts);
  } catch (...) {
    // Out of memory while logging: the record is lost, the caller goes on.
  }
}
