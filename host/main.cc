// corvid-update: a host for the update module. It provides the agent's
// services (paths, parameters, log, event manager), starts the module, runs
// one command or answers the status, and stops it again.
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <fcntl.h>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <vector>
#include <unistd.h>

#include <curl/curl.h>

#include "agent/agent.h"
#include "agent/bridge.h"
#include "client/responder.h"
#include "client/status_json.h"
#include "facts/agent_facts.h"
#include "facts/trust.h"
#include "frame/listener.h"
#include "frame/module.h"
#include "frame/update.h"
#include "host/bridge_commands.h"
#include "host/options.h"
#include "host/progress.h"
#include "platform/agent_paths.h"
#include "platform/file_ops.h"
#include "platform/hash_file.h"
#include "platform/local_params.h"
#include "status/status.h"

namespace host {

namespace {

constexpr int exit_ok = 0;
constexpr int exit_failed = 1;
constexpr int exit_usage = 2;
constexpr int exit_interrupted = 130;

void no_status_push(const std::string&, const std::string&) {}
bool no_client(size_t, const char*) { return false; }

client::answer_t answer_of(const std::string& text) {
  if (text == "yes") return client::answer_t::yes;
  if (text == "no") return client::answer_t::no;
  if (text == "ask") return client::answer_t::ask;
  return client::default_answer();
}

void set_if(std::string& field, const std::string& value) {
  if (!value.empty()) field = value;
}

// Root's daemon must not keep its state where someone else could change it:
// false, with the directory and why on standard error, for a root, update
// directory or keys directory that another user owns or may write.
bool directories_are_private(const std::string& root) {
  std::string update_dir;
  update::update_dir_path(update_dir);
  bool named = false;
  const std::pair<const char*, std::string> checked[] = {
      {"agent root", root},
      {"update directory", update_dir},
      {"trusted keys directory", update::trusted_keys_path(named)}};
  for (const auto& [what, dir] : checked) {
    const std::string why = update::directory_exposure_text(dir);
    if (why.empty()) continue;
    std::fprintf(stderr, "corvid-update: refusing the %s: %s\n", what, why.c_str());
    return false;
  }
  return true;
}

// Fills in the agent's paths and parameters and opens its log. False, with
// nothing written, when there is no agent root, a directory is not private
// (directories_are_private), or another process holds the update directory.
bool configure_agent(const options_t& options) {
  const std::string root = options.root.empty() ? agent::default_root() : options.root;
  if (root.empty()) {
    std::fprintf(stderr, "corvid-update: no agent root: HOME and XDG_STATE_HOME are unset; give --root DIR\n");
    return false;
  }
  agent::paths_t paths = agent::paths_under(root);
  set_if(paths.product_version, options.product_version);
  set_if(paths.product_build, options.product_build);
  set_if(paths.product_target, options.product_target);
  set_if(paths.product_os, options.product_os);
  set_if(paths.product_cpu, options.product_cpu);
  set_if(paths.product_vendor, options.product_vendor);
  agent::configure_paths(paths);
  LPARAMS::server::set_update_dir(options.update_dir);
  LPARAMS::server::set_verify_downloads(!options.no_verify);
  // A typo in a trust setting must not quietly fall back to the system's.
  if (!options.ca_file.empty() && ::access(options.ca_file.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "corvid-update: cannot read the CA file %s: %s\n", options.ca_file.c_str(),
                 std::strerror(errno));
    return false;
  }
  LPARAMS::server::set_ca_file(options.ca_file);
  LPARAMS::server::set_trusted_keys_dir(options.trusted_keys);
  if (options.description_timeout != 0) LPARAMS::server::set_description_timeout(options.description_timeout);
  if (!directories_are_private(root)) return false;
  LPARAMS::server::set_machine_id_file(options.machine_id_file);
  std::vector<update::trusted_key_t> keys;
  std::string error;
  if (!update::load_trusted_keys(keys, error)) {
    std::fprintf(stderr, "corvid-update: trusted keys: %s\n", error.c_str());
    return false;
  }
  long holder = 0;
  const update::claim_t claim = update::claim_update_dir(holder, error);
  if (claim == update::claim_t::in_use) {
    std::fprintf(stderr, "corvid-update: %s\n", error.c_str());
    return false;
  }
  // What did not exist was made just now: made by someone else first, it is theirs.
  if (!directories_are_private(root)) return false;
  // Anything else keeps the module from locking, not from starting: the
  // saves then tell whether the directory can be written.
  if (claim == update::claim_t::failed) std::fprintf(stderr, "corvid-update: %s\n", error.c_str());
  std::string log = options.log_file;
  if (log.empty()) {
    log = systemLogDir();
    if (!log.empty() && log.back() != '/') log += '/';
    log += update::log_file_name;
  }
  if (!agent::open_log(log, options.socket_group))
    std::fprintf(stderr, "corvid-update: cannot open the log file %s\n", log.c_str());
  return true;
}

// fini is called from the signal watcher and at the end of main; the module
// expects its daemon to make the calls one at a time.
std::mutex fini_lock;

void stop_module() {
  std::lock_guard<std::mutex> hold(fini_lock);
  update::fini();
}

// Ctrl-C or a TERM stops the module the way the daemon's stop would: the
// transfer under way aborts and the run walks to its end, so the status file
// stays truthful. A second signal ends the process at once.
// The two are never destroyed: the watcher may still be notifying when main
// returns and the static destructors run.
volatile sig_atomic_t interrupted = 0;
std::mutex& stop_lock = *new std::mutex;
std::condition_variable& stop_signalled = *new std::condition_variable;  // serve waits on it
// Readable once a stop signal came: the one-shot's prompt gives up on it.
int stop_pipe[2] = {-1, -1};

// A one-shot also takes a closed terminal (SIGHUP) as a stop; the daemon
// outlives the terminal it was started from and takes SIGHUP as the order
// to reopen its log file, which a rotation has renamed.
void watch_signals(bool serving) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  if (::pipe2(stop_pipe, O_CLOEXEC) != 0) stop_pipe[0] = stop_pipe[1] = -1;
  std::thread([signals, serving] {
    for (;;) {
      int received = 0;
      if (sigwait(&signals, &received) != 0) continue;
      if (serving && received == SIGHUP) {
        const bool reopened = agent::reopen_log();
        TLogMessage log(reopened ? log_id_course : log_id_failure);
        log.append_attr(log_attr_text, "serve")
            .append_attr(log_attr_text, reopened ? "log reopened" : "cannot reopen the log file");
        continue;
      }
      if (interrupted) _exit(exit_interrupted);
      {
        std::lock_guard<std::mutex> hold(stop_lock);
        interrupted = 1;
      }
      const char note[] = "\ncorvid-update: stopping\n";
      if (isatty(STDERR_FILENO) == 1) (void)!write(STDERR_FILENO, note, sizeof note - 1);
      // The module first: a question the prompt then gives up is a no, and
      // nothing starts after it.
      stop_module();
      if (stop_pipe[1] >= 0) (void)!write(stop_pipe[1], "x", 1);
      stop_signalled.notify_all();
    }
  }).detach();
}

void print_status_lines() {
  std::string state, message;
  update::get_status(state, message, true);
  if (!state.empty()) std::printf("%s\n", state.c_str());
  if (!message.empty()) std::printf("%s\n", message.c_str());
}

bool result_failed() {
  std::lock_guard<std::recursive_mutex> hold(update::status.lock);
  return update::status.result == update::status_error || update::status.result == update::status_undefined;
}

// The daemon: the module and the bridge's server until a stop signal.
int serve(const options_t& options) {
  if (!configure_agent(options)) return exit_failed;
  update::callbacks().on_status = no_status_push;
  // Code 8 is the host's own listener's, which can answer with a reason.
  update::callbacks().on_client_command = no_client;
  agent::start_event_manager();
  // The listeners are registered before the first client can come.
  update::init();
  host_commands_t commands(sources_path(options));
  AddCommandListener(&commands);
  const std::string socket = options.socket.empty() ? agent::default_socket_path() : options.socket;
  std::string error;
  // Anyone who may connect may read the status; commands need root.
  const std::vector<uint32_t> open_codes{update::code_status, update::code_status_xml};
  agent::bridge_limits_t limits;
  if (options.question_timeout > 0) limits.answer_s = static_cast<int>(options.question_timeout);
  if (!agent::start_bridge(socket, error, options.socket_group, open_codes, limits)) {
    {
      TLogMessage log(log_id_failure);
      log.append_attr(log_attr_text, "serve").append_attr(log_attr_text, error);
    }
    std::fprintf(stderr, "corvid-update: %s\n", error.c_str());
    DelCommandListener(&commands);
    stop_module();
    agent::stop_event_manager();
    agent::close_log();
    return exit_failed;
  }
  {
    TLogMessage log(log_id_course);
    const std::string& group = options.socket_group;
    log.append_attr(log_attr_text, "serve")
        .append_attr(log_attr_text, "listening on " + socket + (group.empty() ? "" : " for group " + group));
  }
  if (isatty(STDERR_FILENO) == 1)
    std::fprintf(stderr, "corvid-update: serving on %s; SIGTERM or Ctrl-C stops\n", socket.c_str());
  {
    std::unique_lock<std::mutex> hold(stop_lock);
    stop_signalled.wait(hold, [] { return interrupted != 0; });
  }
  stop_module();
  agent::stop_bridge();
  DelCommandListener(&commands);
  agent::stop_event_manager();
  {
    TLogMessage log(log_id_course);
    log.append_attr(log_attr_text, "serve").append_attr(log_attr_text, "stopped");
  }
  agent::close_log();
  return exit_ok;
}

int run(options_t options) {
  if (!configure_agent(options)) return exit_failed;
  std::string error;
  if (options.action == action_t::run_command && !take_sources(sources_path(options), options, error)) {
    TLogMessage(log_id_failure).append_attr(log_attr_text, error);
    std::fprintf(stderr, "corvid-update: %s\n", error.c_str());
    agent::close_log();
    return exit_failed;
  }
  update::callbacks().on_status = no_status_push;
  update::callbacks().on_client_command = no_client;
  agent::start_event_manager();
  int code = exit_ok;
  {
    progress_t progress(isatty(STDERR_FILENO) == 1);
    // The host is its own client: it answers the install question and runs
    // what the update hands to the user.
    const client::responder_t responder(answer_of(options.answer), stop_pipe[0]);
    agent::set_local_client([&](uint32_t id, std::string& body) {
      progress.hold(true);
      const bool answered = responder(id, body);
      progress.hold(false);
      return answered;
    });
    update::init();
    // finish_init is queued behind init: once the worker is idle the module
    // has left the stopped state.
    agent::drain_event_manager();
    if (options.action == action_t::run_command) {
      update::process_async(options.command, options.uris, options.cmdid, 0, "", "", TLogIdent{});
      // The module was idle, so the run is queued now; the worker goes idle
      // again only after the run ended and dispatched nothing further.
      while (!agent::drain_event_manager_for(200)) progress.tick();
    }
    agent::set_local_client(nullptr);
  }
  if (interrupted) {
    code = exit_interrupted;
  } else if (options.action == action_t::show_status && options.xml) {
    std::string xml;
    update::get_status_xml(xml);
    std::fputs(xml.c_str(), stdout);
  } else if (options.action == action_t::show_status && options.json) {
    std::lock_guard<std::recursive_mutex> hold(update::status.lock);
    std::puts(client::status_json(update::status).c_str());
  } else {
    print_status_lines();
    if (options.action == action_t::run_command && result_failed()) code = exit_failed;
  }
  std::fflush(stdout);
  stop_module();
  agent::stop_event_manager();
  agent::close_log();
  if (options.stats)
    std::fprintf(stderr, "stats: saves=%llu syncs=%llu reads=%llu\n",
                 static_cast<unsigned long long>(update::status_saves.load()),
                 static_cast<unsigned long long>(update::platform::syncs_done()),
                 static_cast<unsigned long long>(update::platform::hash_reads_done()));
  return code;
}

}  // namespace

}  // namespace host

int main(int argc, char** argv) {
  host::options_t options;
  std::string error;
  if (!host::parse_options(argc, argv, options, error)) {
    std::fprintf(stderr, "corvid-update: %s\nTry 'corvid-update --help'.\n", error.c_str());
    return host::exit_usage;
  }
  if (options.action == host::action_t::help) {
    std::fputs(host::usage_text(), stdout);
    return host::exit_ok;
  }
  host::watch_signals(options.action == host::action_t::serve);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  const int code = options.action == host::action_t::serve ? host::serve(options) : host::run(options);
  curl_global_cleanup();
  return code;
}
