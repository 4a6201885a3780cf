#include <fmt/format.h>

#include <cstdio>
#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

#include "backends/dashboard/DashboardBackend.h"
#include "platform/data/JSON.h"
#include "platform/data/SystemRandom.h"
#include "platform/network/SystemNetwork.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {

using tools::InputError;

namespace {

constexpr int exitNotAcknowledged = 2;

Dictionary payloadFrom(const std::string& text) {
  const Result<Value> json = parseJSON(text);
  const Result<Value> value = json ? tools::valueFromJSON(json.value()) : json;
  if (!value) throw InputError("--payload: " + value.failure().message);
  if (!value.value().dictionary()) throw InputError("--payload takes a JSON object");
  return *value.value().dictionary();
}

TimeValue timeFrom(const PacketOptions& options) {
  const TimeValue now = Platform::current().clock().now();
  if (!options.seconds && !options.microseconds) return now;
  return {options.seconds.value_or(now.seconds), options.microseconds.value_or(0)};
}

Platform::Services sendingServices(std::shared_ptr<Clock> clock) {
  Platform::Services services;
  services.clock = std::move(clock);
  services.random = std::make_shared<SystemRandom>();
  services.network = std::make_shared<SystemNetwork>(services.clock);
  return services;
}

const char* textFor(PacketFate fate) {
  switch (fate) {
    case PacketFate::acknowledged: return "acknowledged";
    case PacketFate::dropped: return "dropped: no acknowledgement came";
    case PacketFate::sent: return "sent, but an acknowledgement could not be asked for";
  }
  return "";
}

}  // namespace

SendingPlatform::SendingPlatform(std::shared_ptr<Clock> clock)
    : _platform(sendingServices(std::move(clock))) {
  Platform::install(&_platform);
}

SendingPlatform::~SendingPlatform() { Platform::install(nullptr); }

int runDashboardCommand(const PacketOptions& options, std::shared_ptr<Clock> clock) {
  const Dictionary payload = payloadFrom(options.payload);
  const SendingPlatform platform(std::move(clock));
  const auto fate = std::make_shared<std::promise<PacketFate>>();
  BackendIdentity identity{.sessionID = options.sessionID,
                           .compType = options.clientType,
                           .clientVersion = options.clientVersion,
                           .udid = options.udid};
  identity.setSelfVersion("8.0");
  const auto backend = DashboardBackend::initWithName(
      "dashboard", options.ip, options.port,
      std::make_shared<const BackendIdentity>(std::move(identity)),
      [fate](std::uint16_t, PacketFate end) { fate->set_value(end); });
  if (!backend) throw std::runtime_error("there is no way to send to " + options.ip);
  const auto logLine = backend->packets().send(&payload, timeFrom(options), options.method,
                                               options.respCode, EventID{options.eventID});
  if (!logLine) throw std::runtime_error("there is no memory for the packet");
  fmt::print("{}\n", *logLine);
  std::fflush(stdout);

  // The packet is given up after its last try, so this ends.
  backend->cleanup();
  const PacketFate end = fate->get_future().get();
  fmt::print("{}\n", textFor(end));
  return end == PacketFate::acknowledged ? 0 : exitNotAcknowledged;
}

}  // namespace corvid::ctl
