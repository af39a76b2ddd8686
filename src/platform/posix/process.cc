#include "platform/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <thread>

extern char** environ;

namespace update::platform {

std::atomic<bool>& refuse_process_start() {
  static std::atomic<bool> refuse{false};
  return refuse;
}

std::atomic<bool>& refuse_thread_start() {
  static std::atomic<bool> refuse{false};
  return refuse;
}

bool split_command_line(const std::string& line, std::vector<std::string>& words) {
  words.clear();
  std::string word;
  bool in_word = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == ' ' || c == '\t' || c == '\n') {
      if (in_word) words.push_back(std::move(word));
      word.clear();
      in_word = false;
      continue;
    }
    in_word = true;
    if (c == '\\') {
      if (++i == line.size()) return false;
      if (line[i] != '\n') word += line[i];  // backslash-newline joins lines
    } else if (c == '\'') {
      const size_t close = line.find('\'', i + 1);
      if (close == std::string::npos) return false;
      word.append(line, i + 1, close - i - 1);
      i = close;
    } else if (c == '"') {
      for (++i;; ++i) {
        if (i == line.size()) return false;
        if (line[i] == '"') break;
        if (line[i] == '\\' && i + 1 < line.size() && std::string_view("$`\"\\\n").find(line[i + 1]) != std::string_view::npos) {
          if (line[++i] != '\n') word += line[i];
          continue;
        }
        word += line[i];
      }
    } else {
      word += c;
    }
  }
  if (in_word) words.push_back(std::move(word));
  return true;
}

namespace {

// posix_spawn's attribute and file-action objects, destroyed on every path.
struct spawn_setup_t {
  posix_spawnattr_t attr;
  posix_spawn_file_actions_t actions;
  int error = 0;

  explicit spawn_setup_t(bool for_user) {
    if ((error = posix_spawnattr_init(&attr)) != 0) return;
    if ((error = posix_spawn_file_actions_init(&actions)) != 0) {
      posix_spawnattr_destroy(&attr);
      return;
    }
    ready_ = true;
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    // The host blocks its stop signals in every thread; a child must not
    // inherit that, nor a handler's disposition.
    // A user's command gets a session of its own, away from the client's
    // terminal signals, and writes where the client writes.
    const short group = for_user ? POSIX_SPAWN_SETSID : POSIX_SPAWN_SETPGROUP;
    error = posix_spawnattr_setflags(&attr, group | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    if (!error && !for_user) error = posix_spawnattr_setpgroup(&attr, 0);
    if (!error) error = posix_spawnattr_setsigmask(&attr, &none);
    if (!error) error = posix_spawnattr_setsigdefault(&attr, &all);
    for (int fd = 0; fd < (for_user ? 1 : 3) && !error; ++fd)
      error = posix_spawn_file_actions_addopen(&actions, fd, "/dev/null", fd == 0 ? O_RDONLY : O_WRONLY, 0);
    // Whatever else is open here (sockets of libcurl, the log, a client's
    // connection) stays ours, even where a descriptor lacks close-on-exec.
    if (!error) error = posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  }
  ~spawn_setup_t() {
    if (!ready_) return;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
  }
  spawn_setup_t(const spawn_setup_t&) = delete;
  spawn_setup_t& operator=(const spawn_setup_t&) = delete;

 private:
  bool ready_ = false;
};

int start(const std::string& command_line, process_t& process, bool for_user) {
  if (refuse_process_start()) return ENOSYS;
  std::vector<std::string> words;
  if (!split_command_line(command_line, words) || words.empty()) return EINVAL;
  std::vector<char*> argv;
  argv.reserve(words.size() + 1);
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  spawn_setup_t setup(for_user);
  if (setup.error != 0) return setup.error;
  pid_t pid = -1;
  // glibc reports a program that cannot be executed here, not in the child.
  const int error = posix_spawnp(&pid, argv[0], &setup.actions, &setup.attr, argv.data(), environ);
  if (error != 0) return error;
  process.id = pid;
  return 0;
}

}  // namespace

int start_process(const std::string& command_line, process_t& process) { return start(command_line, process, false); }

int start_user_process(const std::string& command_line, process_t& process) {
  return start(command_line, process, true);
}

bool wait_process(process_t& process, process_end_t& end) {
  if (process.id <= 0) return false;
  int status = 0;
  pid_t got;
  do {
    got = ::waitpid(static_cast<pid_t>(process.id), &status, 0);
  } while (got < 0 && errno == EINTR);
  if (got < 0) return false;
  process.id = -1;
  if (WIFSIGNALED(status)) {
    end.signal = WTERMSIG(status);
    end.exit_status = 0;
  } else {
    end.signal = 0;
    end.exit_status = static_cast<uint32_t>(WEXITSTATUS(status));
  }
  return true;
}

void release_process(process_t& process) {
  if (process.id <= 0) return;
  // Nobody else reaps a child of a live process: one small thread waits so
  // that no zombie outlives the command.
  const pid_t pid = static_cast<pid_t>(process.id);
  process.id = -1;
  auto reap = [pid] {
    int status;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
  };
  try {
    if (refuse_thread_start())
      throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    std::thread(reap).detach();
  } catch (const std::system_error&) {
    reap();  // no thread to spare: the caller waits rather than leave a zombie
  }
}

std::string system_error_text(int code) {
  char buffer[256];
  // GNU strerror_r: the text may or may not be in the buffer.
  const char* text = strerror_r(code, buffer, sizeof buffer);
  return text ? std::string(text) : std::string();
}

std::string signal_name(int signal) {
  const char* abbrev = sigabbrev_np(signal);
  return abbrev ? std::string("SIG") + abbrev : std::to_string(signal);
}

}  // namespace update::platform
