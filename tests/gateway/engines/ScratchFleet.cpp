#include "tests/gateway/engines/ScratchFleet.h"

#include <fmt/format.h>

#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "tests/support/Loopback.h"

namespace corvid::fleet {

namespace {

std::string onLoopback(std::uint16_t port) { return fmt::format("127.0.0.1:{}", port); }

}  // namespace

ScratchFleet::ScratchFleet(const Setup& setup, const lab::TLSIdentity& identity)
    : _ports(freePorts(2 * setup.gateways + setup.loaders)) {
  std::filesystem::create_directory(uploads());
  const std::string limits =
      _scratch.write("gateway.conf", "proxies = 127.0.0.1\nfree-space = 0\n" + setup.limits);
  std::vector<std::uint16_t> gatewayPorts;
  for (std::size_t i = 0; i < setup.gateways; ++i) {
    const std::uint16_t port = _ports[2 * i], monitor = _ports[2 * i + 1];
    gatewayPorts.push_back(port);
    std::vector<std::string> command{CORVID_GATEWAY_PROGRAM,
                                     "--listen",
                                     onLoopback(port),
                                     "--monitor",
                                     onLoopback(monitor),
                                     "--log-url",
                                     setup.logURL,
                                     "--config",
                                     limits,
                                     "--uploads",
                                     uploads()};
    command.insert(command.end(), setup.gatewayOptions.begin(), setup.gatewayOptions.end());
    _gateways.emplace_back(command, _scratch.path(fmt::format("gateway{}.log", i)), monitor);
  }
  for (std::size_t i = 0; i < setup.loaders; ++i) {
    const std::uint16_t monitor = _ports[2 * setup.gateways + i];
    _loaders.emplace_back(
        std::vector<std::string>{CORVID_LOADER_PROGRAM, "--log-url", setup.logURL, "--database",
                                 _postgres.target(), "--monitor", onLoopback(monitor)},
        _scratch.path(fmt::format("loader{}.log", i)), monitor);
  }
  for (Service& gateway : _gateways) gateway.start();
  for (Service& loader : _loaders) loader.start();
  _nginx.emplace(gatewayPorts, &identity);
}

void ScratchFleet::awaitReady() const {
  constexpr std::chrono::seconds limit{60};
  for (const auto* const services : {&_gateways, &_loaders})
    for (const Service& service : *services)
      if (!service.awaitReady(limit))
        throw std::runtime_error("a service does not come up: " + service.lastWords());
}

bool ScratchFleet::stop() {
  bool areSound = true;
  for (auto* const services : {&_gateways, &_loaders})
    for (Service& service : *services) areSound &= service.stop() == 0;
  return areSound;
}

}  // namespace corvid::fleet
