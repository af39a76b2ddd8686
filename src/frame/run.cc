// One command from start to end: the sources in request order, then the
// per-file stages over the plans, then the end-of-run passes.
#include <algorithm>
#include <list>
#include <memory>

#include "description/inivars.h"
#include "description/loader.h"
#include "facts/hash_cache.h"
#include "facts/trust.h"
#include "frame/curl_init.h"
#include "frame/module.h"
#include "frame/run_gates.h"
#include "install/install.h"
#include "planning/merge.h"
#include "planning/plan_rule.h"
#include "planning/reconcile.h"
#include "platform/agent_paths.h"
#include "platform/log.h"
#include "records/update_ini.h"
#include "status/status.h"
#include "support/file_helpers.h"
#include "support/message_format.h"
#include "transfer/download_stage.h"
#include "transfer/signed_fetch.h"
#include "transfer/update_ini_fetch.h"

namespace update {

curl_init_fn_t run_curl_init = curl_easy_init;

namespace {


struct curl_cleanup_t {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
using curl_owner_t = std::unique_ptr<CURL, curl_cleanup_t>;

bool runs_downloads(Command command) {
  return command == Command::download || command == Command::install || command == Command::install_manual;
}

bool runs_installs(Command command) { return command == Command::install || command == Command::install_manual; }

void add_predefined_variables(inivars_t& vars, const request_t& request) {
  vars.add("agent_version", current_version_text());
  vars.add("agent_specs", product_specs_text());
  vars.add("current_product_specs", product_specs_text());
  vars.add("update_path", without_trailing_separators(request.update_path));
  vars.add("update_ini_format", "1.0");
  vars.add("agent_tmp", without_trailing_separators(agentTmpDir(), 1));
  vars.add("agent_bin", without_trailing_separators(agentBinDir(), 1));
  vars.add("agent_lib", without_trailing_separators(agentLibDir(), 1));
  vars.add("agent_etc", without_trailing_separators(agentEtcDir(), 1));
  vars.add("system_etc", without_trailing_separators(systemEtcDir(), 1));
  vars.add("system_log", without_trailing_separators(systemLogDir(), 1));
  vars.add("system_var", without_trailing_separators(systemVarDir(), 1));
  vars.add("system_var_etc", without_trailing_separators(systemVarEtcDir(), 1));
  vars.add("system_tmp", without_trailing_separators(systemTmpDir(), 1));
}

// Errors outside any source land in the run's general message.
void select_first_message() {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.current_message = status.messages.empty() ? nullptr : &status.messages.front();
}

// A URI that outgrows what substitution allows is its source's error; the
// message keeps the URI as it came.
bool expand_uri(inivars_t& vars, std::string& uri) {
  try {
    vars.apply(uri, variable_delimiters);
    return true;
  } catch (const std::string& text) {
    status.select_message(uri);
    report_error(text.c_str());
    return false;
  }
}

// Each rule's errors land in its source's message, and what comes after it
// in the general one.
// False when a stop cut the walk short.
template <typename Stage>
bool for_each_rule(const plans_t& plans, Stage stage) {
  for (file_rule_t* rule : plans) {
    if (stop_requested()) return false;
    status.select_message(rule->owner ? rule->owner->uri : "");
    stage(*rule);
    select_first_message();
  }
  return true;
}

// Keys are read anew by every command, so that a key added or withdrawn
// counts from the next one.
void read_run_trust(const std::string& update_path, trust_t& trust) {
  read_trust(update_path, trust);
  if (checks_signatures(trust)) return;
  bool named = false;
  TLogMessage log(log_id_notice);
  log.append_attr(log_attr_text, format_message("Descriptions are not signature-checked: no trusted key in %s",
                                                trusted_keys_path(named).c_str()));
}

}  // namespace

bool open_download_gate(status_t& status) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  const bool something = std::any_of(status.files.begin(), status.files.end(), [](const file_status_t& f) {
    return f.available && !f.skipped && !f.skip_downloading &&
           (f.state == file_outofdate || f.state == file_download);
  });
  if (!something) return false;
  status.result = status_download;
  status.client_visible = true;
  return true;
}

bool open_install_gate(status_t& status) {
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.current_file = nullptr;
  const bool something = std::any_of(status.files.begin(), status.files.end(), [](const file_status_t& f) {
    return f.available && !f.skipped && f.error.empty() &&
           (f.state == file_downloaded || (f.skip_downloading && f.state == file_outofdate));
  });
  if (!something) return false;
  status.result = status_install;
  status.client_visible = true;
  return true;
}

void run_command(request_t& request) {
  if (request.command == Command::unknown) {
    report(0, format_message("%sUnknown update command", ""));
    return;
  }
  if (request.uris.empty()) {
    report(0, format_message("%sDownload error: URI not specified (should be obtained from the Policy Managment Server)", ""));
    return;
  }
  curl_owner_t handle(run_curl_init());
  if (!handle) {
    report(0, format_message("%sDownload error: CURL init failed", ""));
    return;
  }

  // Rules are referred to from plans and the status: sources must not move.
  std::list<update_ini_t> sources;
  plans_t plans;
  hash_cache_t hashes;
  inivars_t vars;
  add_predefined_variables(vars, request);
  trust_t trust;
  read_run_trust(request.update_path, trust);
  const bool signed_only = checks_signatures(trust);

  bool cut = false;  // by a stop: work was left undone
  for (const std::string& uri : request.uris) {
    if ((cut = stop_requested())) break;
    update_ini_t& record = sources.emplace_back();
    record.uri = uri;
    if (!expand_uri(vars, record.uri)) continue;
    status.select_message(record.uri);
    // Every source is fetched to the same local name, so each is compared,
    // parsed and merged before the next one overwrites it. A signed source
    // that fails is passed over like one that cannot be fetched.
    record.signature_checked = signed_only;
    if (!(signed_only ? fetch_signed_update_ini(record.uri, request.update_path, local_ini_name, handle.get(),
                                                request.params, trust)
                      : fetch_update_ini(record.uri, request.update_path, local_ini_name, handle.get(),
                                         request.params)))
      continue;
    // A copy of an earlier source is gone from the list after this.
    if (!check_source_file(sources, request.update_path, local_ini_name)) continue;
    if (!load_update_ini(record, vars, hashes, request.update_path, local_ini_name, 0)) continue;
    record.merged = merge_source(record, sources);
  }
  select_first_message();

  // A stop leaves what the sources have not all said untouched: a source cut
  // short, or a condition whose command was refused, would mislead planning.
  if (!cut && !(cut = stop_requested())) {
    reconcile_status(sources, status, plans, request.update_path);
    cut = !for_each_rule(plans, [&](file_rule_t& rule) { plan_rule(rule, request.update_path); });
    if (!cut && runs_downloads(request.command) && open_download_gate(status))
      cut = !for_each_rule(plans, [&](file_rule_t& rule) { download_rule(rule, handle.get()); });
    if (!cut && runs_installs(request.command) && open_install_gate(status))
      cut = !for_each_rule(plans, [&](file_rule_t& rule) { install_rule(rule, request.command, request.update_path); });
  }
  if (cut) {
    select_first_message();
    report(0, format_message("%sUpdate stopped: the module is stopping", ""));
  }

  std::lock_guard<std::recursive_mutex> hold(status.lock);
  status.verify_versions(request.update_path);
  status.rehash();
  status.log_files();
}

}  // namespace update
