#include "host/options.h"

#include <charconv>
#include <cstring>
#include <utility>

#include "support/xml_text.h"

namespace host {

namespace {

struct command_name_t {
  const char* name;
  update::Command command;
};

// "unknown" is taken on purpose: it reaches the module's own refusal.
constexpr command_name_t command_names[] = {
    {"check", update::Command::check},
    {"download", update::Command::download},
    {"install", update::Command::install},
    {"check-manual", update::Command::check_manual},
    {"install-manual", update::Command::install_manual},
    {"unknown", update::Command::unknown},
};

struct value_option_t {
  const char* name;
  std::string options_t::*field;
};

// Waits given in seconds, from 1 to a day: a wait longer than that holds
// every command behind it.
struct seconds_option_t {
  const char* name;
  unsigned options_t::*field;
};
constexpr unsigned long max_wait_seconds = 86400;
constexpr seconds_option_t seconds_options[] = {
    {"--description-timeout", &options_t::description_timeout},
    {"--question-timeout", &options_t::question_timeout},
};

bool parse_seconds(const std::string& text, unsigned& seconds) {
  unsigned long value = 0;
  const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || failed != std::errc() || end != text.data() + text.size() || value < 1 ||
      value > max_wait_seconds)
    return false;
  seconds = static_cast<unsigned>(value);
  return true;
}

constexpr value_option_t value_options[] = {
    {"--update-dir", &options_t::update_dir},
    {"--root", &options_t::root},
    {"--log", &options_t::log_file},
    {"--ca-file", &options_t::ca_file},
    {"--trusted-keys", &options_t::trusted_keys},
    {"--cmdid", &options_t::cmdid},
    {"--socket", &options_t::socket},
    {"--socket-group", &options_t::socket_group},
    {"--answer", &options_t::answer},
    {"--sources", &options_t::sources},
    {"--machine-id-file", &options_t::machine_id_file},
    {"--product-version", &options_t::product_version},
    {"--product-build", &options_t::product_build},
    {"--product-target", &options_t::product_target},
    {"--product-os", &options_t::product_os},
    {"--product-cpu", &options_t::product_cpu},
    {"--product-vendor", &options_t::product_vendor},
};

}  // namespace

bool parse_options(int argc, const char* const* argv, options_t& options, std::string& error) {
  std::list<std::string> positional;
  bool options_ended = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (options_ended || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
      positional.push_back(arg);
      continue;
    }
    if (arg == "--") {
      options_ended = true;
      continue;
    }
    if (arg == "--help") {
      options.action = action_t::help;
      return true;
    }
    if (arg == "--no-verify") {
      options.no_verify = true;
      continue;
    }
    if (arg == "--xml" || arg == "--json") {
      (arg == "--xml" ? options.xml : options.json) = true;
      continue;
    }
    if (arg == "--stats") {
      options.stats = true;
      continue;
    }
    const size_t equals = arg.find('=');
    const std::string name = arg.substr(0, equals);
    const seconds_option_t* wait = nullptr;
    for (const auto& candidate : seconds_options)
      if (name == candidate.name) wait = &candidate;
    if (wait) {
      const std::string value = equals != std::string::npos ? arg.substr(equals + 1) : i + 1 < argc ? argv[++i] : "";
      if (!parse_seconds(value, options.*(wait->field))) {
        error = name + " takes a number of seconds from 1 to " + std::to_string(max_wait_seconds);
        return false;
      }
      continue;
    }
    const value_option_t* option = nullptr;
    for (const auto& candidate : value_options)
      if (name == candidate.name) option = &candidate;
    if (!option) {
      error = "unknown option " + name;
      return false;
    }
    if (equals != std::string::npos) {
      options.*(option->field) = arg.substr(equals + 1);
    } else if (i + 1 < argc) {
      options.*(option->field) = argv[++i];
    } else {
      error = "option " + name + " needs a value";
      return false;
    }
  }
  if (positional.empty()) {
    error = "no command given";
    return false;
  }
  const std::string command = std::move(positional.front());
  positional.pop_front();
  if (command == "status") {
    if (!positional.empty()) {
      error = "status takes no URI";
      return false;
    }
    options.action = action_t::show_status;
    return true;
  }
  if (command == "serve") {
    if (!positional.empty()) {
      error = "serve takes no URI";
      return false;
    }
    options.action = action_t::serve;
    return true;
  }
  if (options.answer != "" && options.answer != "yes" && options.answer != "no" && options.answer != "ask") {
    error = "--answer takes yes, no or ask";
    return false;
  }
  if (options.xml || options.json) {
    error = std::string(options.xml ? "--xml" : "--json") + " goes with the status command only";
    return false;
  }
  if (update::has_xml_forbidden_byte(options.cmdid)) {
    error = "--cmdid takes no control character";
    return false;
  }
  for (const auto& known : command_names) {
    if (command == known.name) {
      options.action = action_t::run_command;
      options.command = known.command;
      options.uris = std::move(positional);
      return true;
    }
  }
  error = "unknown command " + command;
  return false;
}

const char* usage_text() {
  return R"(Usage: corvid-update [OPTIONS] COMMAND [URI...]
  or:  corvid-update [OPTIONS] status [--xml | --json]

Runs one command of the update module against the update sources given as
URIs, in order, or without URIs against those of the sources file, and
prints the module's status when the command has ended: "update_state=..."
and, on error, "update_msg=..." on a line each.

Commands:
  check            fetch each source's update.ini and decide what is out of date
  download         check, then download what is missing (with resume)
  install          download, then install by running the update's commands
  check-manual     as check, recorded as a manual check
  install-manual   as install, without asking the client first
  unknown          submit the unknown command (the module refuses it)
  status           start the module and print the saved status; with --xml
                   print the status as XML instead, with --json as one JSON
                   object
  serve            run as the daemon until SIGTERM or SIGINT: clients
                   (corvid-update-client) reach the module over the bridge's
                   socket; the daemon writes only to its log

Options:
  --update-dir DIR      working directory of the module: fetched files, the
                        status file corvid_update_status.xml
                        (default: the var directory + "update")
  --root DIR            lay out every agent directory below DIR: DIR/bin,
                        DIR/lib, DIR/etc, DIR/tmp, DIR/log, DIR/var/,
                        DIR/var/etc (default: $XDG_STATE_HOME/corvid, or
                        ~/.local/state/corvid)
  --product-version V   the agent's version (default 1.0)
  --product-build B     the agent's build (default 0)
  --product-target T    the product, which names the section update.ini is
                        read from (default corvid)
  --product-os OS       (default linux)
  --product-cpu CPU     (default x86_64)
  --product-vendor V    (default corvid)
  --no-verify           turn off hash verification of downloaded files
  --ca-file PATH        HTTPS servers must have certificates from the
                        authorities in this PEM file (instead of the
                        system's); it must be readable at start
  --description-timeout SECONDS
                        the longest the fetch of a source's update.ini, and
                        of its signature, may take (default 300)
  --trusted-keys DIR    every source's update.ini must come with an
                        update.ini.sig signed by one of the public keys
                        DIR/*.pub (default: the etc directory +
                        "update-keys", which may be absent); a named DIR
                        and every key in it must be readable at start. With
                        no key, descriptions are not signature-checked
  --stats               at the end, print the number of status saves, of
                        waits for the disk and of files read for a hash on
                        standard error
  --sources FILE        the sources file: one URI a line, blank lines and
                        lines beginning with "#" left out; read by every
                        command given no URI, the daemon's included (default:
                        the etc directory + "sources")
  --machine-id-file F   the file whose first line is this machine's identity,
                        which places it in a description's staged rollouts
                        (default: /etc/machine-id)
  --log FILE            log file (default: the log directory +
                        "corvid_update.log"); the daemon opens it anew on
                        SIGHUP, after a rotation renamed it
  --cmdid ID            identifier of the command, kept in the status
  --answer A            install: answer the update's install question with
                        yes, no or ask (default: ask when standard input is
                        a terminal, else no); Ctrl-C or the end of input at
                        the question is a no; commands the update hands to
                        the user are run by corvid-update itself
  --socket PATH         serve: the bridge's socket (default: the var
                        directory + "corvid_bridge.sock")
  --socket-group NAME   serve: the socket belongs to group NAME with mode
                        0660, so that the group's members may use the client
                        to read the status and answer the update's questions
                        (default: the socket is owner-only); commands need
                        root or the daemon's own user. The socket's
                        directory and those above it must be writable by
                        root or the daemon's user only (or be sticky)
  --question-timeout S  serve: a client that offered to answer has S seconds
                        (default 300) for the install question, unless the
                        update gives the question a time of its own (then
                        that time and 30 s more), and S seconds for a
                        command it is handed to run; then it counts as no
                        answer, and root's or the daemon's user's client
                        offering meanwhile takes the question over
  --help                this text

A client's code 8 bytes reach a serving host as a command line: a command
and its URIs, e.g. "check http://host/repo/", which it runs when the client
is root or the daemon's own user; without URIs it takes the sources file's.
A command line it refuses, or a sources file it cannot use, is answered with
the reason and logged, and starts nothing.

One process at a time uses an update directory: another that finds it taken
says which process holds it and exits with status 1.

Progress goes to standard error: a bar on a terminal, log lines otherwise.
Exit status: 0 when the command ended in a defined state other than error,
1 when it ended in error or undefined, 2 for a bad command line. status
exits 0 whenever it could answer.
)";
}

}  // namespace host
