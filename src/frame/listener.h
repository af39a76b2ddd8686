// The module's listener on the agent's command bridge: a client starts a
// manual installation (code 4), polls the binary status by revision (6),
// reads the status XML (7) and passes bytes to the host (8).
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "platform/command_bridge.h"
#include "records/bridge_codes.h"

namespace update {

class UpSvcCmdListener : public CommandListener {
 public:
  UpSvcCmdListener() = default;
  ~UpSvcCmdListener() override;  // unregisters from the bridge
  UpSvcCmdListener(const UpSvcCmdListener&) = delete;
  UpSvcCmdListener& operator=(const UpSvcCmdListener&) = delete;

  // Runs on the bridge's thread. Code 6 takes the status lock, code 4 the
  // module lock (through submit_request); none takes both. A code 6 request
  // of 1 to 7 bytes throws "CommandStreamError" before taking any lock.
  // Other codes answer false and leave reply alone.
  bool on_command(uint64_t client, uint32_t code, const std::string& request, std::string& reply) override;
};

// Written by init and fini only.
extern std::unique_ptr<UpSvcCmdListener> service_listener;

// init's step: creates the listener, marks it 11 and registers it.
void register_service_listener();
// fini's step: deletes (and so unregisters) the listener, if any.
void unregister_service_listener();

// The code 6 reply for a request, appended to reply: with a revision (8
// bytes or more), false while the status is not for clients and an empty
// true while the revision is current. Takes the status lock.
bool write_binary_status(const std::string& request, std::string& reply);

}  // namespace update
