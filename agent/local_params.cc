// Local parameters of the agent: one object, each value read under its lock.
#include "platform/local_params.h"

#include <mutex>

namespace LPARAMS {

namespace {

struct values_t {
  std::mutex lock;
  std::string update_dir;       // guarded by lock; empty: the default
  bool verify_downloads = true;  // guarded by lock
  std::string ca_file;           // guarded by lock; empty: the system's
  std::string trusted_keys_dir;  // guarded by lock; empty: the default
};

values_t& values() {
  static values_t& v = *new values_t;  // outlives static destructors
  return v;
}

}  // namespace

std::string server::update_dir() {
  std::lock_guard<std::mutex> hold(values().lock);
  return values().update_dir;
}

void server::set_update_dir(const std::string& dir) {
  std::lock_guard<std::mutex> hold(values().lock);
  values().update_dir = dir;
}

bool server::verify_downloads() {
  std::lock_guard<std::mutex> hold(values().lock);
  return values().verify_downloads;
}

void server::set_verify_downloads(bool on) {
  std::lock_guard<std::mutex> hold(values().lock);
  values().verify_downloads = on;
}

std::string server::verify_downloads_name() { return "verify_downloads"; }

std::string server::ca_file() {
  std::lock_guard<std::mutex> hold(values().lock);
  return values().ca_file;
}

void server::set_ca_file(const std::string& path) {
  std::lock_guard<std::mutex> hold(values().lock);
  values().ca_file = path;
}

std::string server::trusted_keys_dir() {
  std::lock_guard<std::mutex> hold(values().lock);
  return values().trusted_keys_dir;
}

void server::set_trusted_keys_dir(const std::string& dir) {
  std::lock_guard<std::mutex> hold(values().lock);
  values().trusted_keys_dir = dir;
}

}  // namespace LPARAMS
