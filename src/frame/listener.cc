#include "frame/listener.h"

#include <cstring>
#include <list>

#include "frame/module.h"
#include "frame/update.h"
#include "records/request.h"
#include "status/status.h"
#include "support/byte_layout.h"
#include "support/stream_error.h"

namespace update {

std::unique_ptr<UpSvcCmdListener> service_listener;

namespace {

// The bridge's number for this module's listener.
constexpr int32_t listener_data = 11;

}  // namespace

UpSvcCmdListener::~UpSvcCmdListener() { DelCommandListener(this); }

bool write_binary_status(const std::string& request, std::string& reply) {
  const bool with_revision = !request.empty();
  if (with_revision && request.size() < sizeof(uint64_t)) raise_stream_error();
  uint64_t seen = 0;
  if (with_revision) std::memcpy(&seen, request.data(), sizeof seen);
  std::lock_guard<std::recursive_mutex> hold(status.lock);
  if (with_revision) {
    if (!status.client_visible) return false;
    if (seen == status.revision) return true;
    append_number(reply, status.revision);
  }
  append_number(reply, static_cast<int32_t>(status.result));
  if (status.result == status_download) {
    append_number(reply, status.sum_download_size());
    append_number(reply, status.sum_total_size());
    append_counted(reply, status.checking_file);
  } else if (status.result == status_error) {
    append_number(reply, static_cast<uint32_t>(status.messages.size()));
    for (const auto& message : status.messages) append_counted(reply, message.text);
  }
  return true;
}

bool UpSvcCmdListener::on_command(uint64_t, uint32_t code, const std::string& request, std::string& reply) {
  switch (code) {
    case code_install:
      // The client names no source: the one empty URI fails at retrieval.
      submit_request(new request_t(Command::install_manual, std::list<std::string>{""}));
      return true;
    case code_status:
      return write_binary_status(request, reply);
    case code_status_xml:
      get_status_xml(reply);
      return true;
    case code_host:
      return callbacks().on_client_command(request.size(), request.data());
    default:
      return false;
  }
}

void register_service_listener() {
  auto listener = std::make_unique<UpSvcCmdListener>();
  listener->data = listener_data;
  AddCommandListener(listener.get());
  service_listener = std::move(listener);
}

void unregister_service_listener() { service_listener.reset(); }

}  // namespace update
