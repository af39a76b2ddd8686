// The few services the fuzzed sources call, kept minimal so that the target
// builds from the ini engine, the indexed reader and the file helpers. Reports are
// counted: a reader that fails must have said why.
#include "fuzz/fuzz_support.h"

#include "platform/local_params.h"
#include "platform/log.h"
#include "status/status.h"

namespace fuzz {
int reports = 0;
bool verify_downloads = true;
}  // namespace fuzz

namespace update {
void report(int level, const std::string&) {
  if (level == 0) ++fuzz::reports;
}
void report_error(const char* text) { report(0, text); }
}  // namespace update

namespace LPARAMS {
bool server::verify_downloads() { return fuzz::verify_downloads; }
std::string server::verify_downloads_name() { return "verify_downloads"; }
std::string server::machine_id_file() { return "/etc/machine-id"; }
}  // namespace LPARAMS

TLogMessage::~TLogMessage() {}
