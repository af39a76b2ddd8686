// Placeholder until the module frame lands.
#include "frame/module.h"
#include "frame/update.h"

namespace update {
std::mutex module_lock;
module_state_t module_state = module_stopped;
std::unique_ptr<request_t> pending_request;
const char* command_text(Command) { return "UNDEFINED"; }
request_t::request_t(Command c, const std::list<std::string>& u) : command(c), uris(u) {}
module_state_t current_module_state() { std::lock_guard<std::mutex> hold(module_lock); return module_state; }
void submit_request(request_t* r) { delete r; }
void run_request(em_call_t*) {}
void finish_init(em_call_t*) {}
void status_timer_proc(em_call_t*) {}
void arm_status_timer() {}
void update_dir_path(std::string& path) { path.clear(); }
void run_command(request_t&) {}
const std::string& current_version_text() { static std::string s; return s; }
const std::string& product_specs_text() { static std::string s; return s; }
void reset_module_for_tests() {}
void init() {}
void fini() {}
callbacks_t& callbacks() { static callbacks_t c{}; return c; }
void process_async(Command, const std::list<std::string>&, const std::string&, unsigned short, const std::string&,
                   const std::string&, const TLogIdent&) {}
}  // namespace update
