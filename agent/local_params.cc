// Local parameters of the agent: one object, each value read under its lock.
#include "platform/local_params.h"

#include <mutex>
#include <utility>

namespace LPARAMS {

namespace {

struct values_t {
  std::mutex lock;
  std::string update_dir;       // guarded by lock; empty: the default
  bool verify_downloads = true;  // guarded by lock
  std::string ca_file;           // guarded by lock; empty: the system's
  std::string trusted_keys_dir;  // guarded by lock; empty: the default
  unsigned description_timeout = 300;  // guarded by lock
  std::string machine_id_file;   // guarded by lock; empty: the default
};

values_t& values() {
  static values_t& v = *new values_t;  // outlives static destructors
  return v;
}

// Each value is read and written whole under the one lock.
template <typename T>
T read(T values_t::*field) {
  std::lock_guard<std::mutex> hold(values().lock);
  return values().*field;
}

template <typename T>
void write(T values_t::*field, T value) {
  std::lock_guard<std::mutex> hold(values().lock);
  values().*field = std::move(value);
}

}  // namespace

std::string server::update_dir() { return read(&values_t::update_dir); }
void server::set_update_dir(const std::string& dir) { write(&values_t::update_dir, dir); }

bool server::verify_downloads() { return read(&values_t::verify_downloads); }
void server::set_verify_downloads(bool on) { write(&values_t::verify_downloads, on); }
std::string server::verify_downloads_name() { return "verify_downloads"; }

std::string server::ca_file() { return read(&values_t::ca_file); }
void server::set_ca_file(const std::string& path) { write(&values_t::ca_file, path); }

unsigned server::description_timeout() { return read(&values_t::description_timeout); }
void server::set_description_timeout(unsigned seconds) { write(&values_t::description_timeout, seconds); }

std::string server::trusted_keys_dir() { return read(&values_t::trusted_keys_dir); }
void server::set_trusted_keys_dir(const std::string& dir) { write(&values_t::trusted_keys_dir, dir); }

std::string server::machine_id_file() {
  const std::string path = read(&values_t::machine_id_file);
  return path.empty() ? "/etc/machine-id" : path;
}
void server::set_machine_id_file(const std::string& path) { write(&values_t::machine_id_file, path); }

}  // namespace LPARAMS
