// What receives from a fleet, as real programs on this machine, but for the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/gateway/engines/ScratchNginx.h"
#include "tests/gateway/engines/ScratchPostgres.h"
#include "tests/gateway/engines/Service.h"
#include "tests/support/Scratch.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid::fleet {

// nginx, gateways, loaders and PostgreSQL, which listen on loopback only. Everything stands in
// scratch folders, and ends with the object. std::runtime_error where something does not come up.
// One thread.
class ScratchFleet {
 public:
  struct Setup {
    std::string logURL;
    std::size_t gateways = 2;
    std::size_t loaders = 1;
    std::vector<std::string> gatewayOptions{};
    // The limits of gateways, as gateway.conf has them, beside who may say who the client is.
    std::string limits{};
  };
  // Starts all, and does not wait for gateways and loaders. nginx shows `identity`'s certificate.
  ScratchFleet(const Setup& setup, const lab::TLSIdentity& identity);

  // Until each gateway takes posts and each loader reads.
  void awaitReady() const;
  // SIGTERM to all, in the order of the way of a post; false where one did not end with 0.
  [[nodiscard]] bool stop();

  ScratchNginx& nginx() { return *_nginx; }
  const ScratchNginx& nginx() const { return *_nginx; }
  ScratchPostgres& postgres() { return _postgres; }
  Service& gateway(std::size_t number) { return _gateways.at(number); }
  Service& loader(std::size_t number) { return _loaders.at(number); }
  std::uint16_t gatewayPort(std::size_t number) const { return _ports.at(2 * number); }
  // Where gateways store the files of clients.
  std::string uploads() const { return _scratch.path("uploads"); }

 private:
  const ScratchFolder _scratch;
  ScratchPostgres _postgres;
  std::vector<std::uint16_t> _ports;  // of each gateway and its monitor, of each loader's
  std::vector<Service> _gateways, _loaders;
  std::optional<ScratchNginx> _nginx;
};

}  // namespace corvid::fleet
