// One device with the real daemon, for a collector to receive from.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tests/e2e/DaemonProcess.h"
#include "tests/e2e/TestClient.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/Lab.h"

namespace corvid::fleet {

// The daemon, a client of it, and the server that it has its configuration from; all end with the
// object. std::runtime_error where something does not come up. One thread.
class RealDevice {
 public:
  RealDevice() : _lab(_root.path()) {}

  // Whom the daemon trusts: what its collector has to show.
  lab::TLSIdentity identity() const { return lab::TLSIdentity(_root.path("lab/tls")); }

  // Reports to this address from now on.
  void start(const std::string& collector);
  // Events of the client, as a batch.
  void send(int events);
  // The daemon's ledger: events that clients handed in, and those that a collector has
  // acknowledged.
  struct Account {
    std::uint64_t accepted = 0;
    std::uint64_t delivered = 0;
  };
  Account account() const;

 private:
  ScratchLab _root;
  lab::Lab _lab;
  std::optional<DaemonProcess> _daemon;
  std::optional<TestClient> _client;
};

}  // namespace corvid::fleet
