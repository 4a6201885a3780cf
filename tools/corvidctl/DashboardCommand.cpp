#include "tools/corvidctl/DashboardCommand.h"

#include <fmt/format.h>

#include <cstdio>
#include <future>
#include <limits>
#include <memory>
#include <stdexcept>

#include "backends/dashboard/DashboardBackend.h"
#include "platform/Platform.h"
#include "platform/data/JSON.h"
#include "tools/CommandLine.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/SendingPlatform.h"

namespace corvid::ctl {

using tools::CommandLine;
using tools::UsageError;

namespace {

constexpr int exitNotAcknowledged = 2;

template <class Number>
Number number(const CommandLine& line, const std::string& option, Number otherwise) {
  using Limits = std::numeric_limits<Number>;
  return static_cast<Number>(line.number(option, Limits::min(), Limits::max()).value_or(otherwise));
}

std::string needed(const CommandLine& line, const std::string& option) {
  const auto text = line.text(option);
  if (!text) throw UsageError(option + " is missing");
  return *text;
}

Dictionary payloadFrom(const CommandLine& line) {
  const auto text = line.text("--payload");
  if (!text) return {};
  const Result<Value> json = parseJSON(*text);
  const Result<Value> value = json ? tools::valueFromJSON(json.value()) : json;
  if (!value) throw UsageError("--payload: " + value.failure().message);
  if (!value.value().dictionary()) throw UsageError("--payload takes a JSON object");
  return *value.value().dictionary();
}

TimeValue timeFrom(const CommandLine& line) {
  const TimeValue now = Platform::current().clock().now();
  const auto seconds = line.number("--seconds", std::numeric_limits<std::int64_t>::min(),
                                   std::numeric_limits<std::int64_t>::max());
  const auto microseconds = line.number("--microseconds", 0, 999'999);
  if (!seconds && !microseconds) return now;
  return {seconds.value_or(now.seconds), static_cast<std::int32_t>(microseconds.value_or(0))};
}

int say(PacketFate fate) {
  switch (fate) {
    case PacketFate::acknowledged: fmt::print("acknowledged\n"); return 0;
    case PacketFate::dropped:
      fmt::print("dropped: no acknowledgement came\n");
      return exitNotAcknowledged;
    case PacketFate::sent:
      fmt::print("sent, but an acknowledgement could not be asked for\n");
      return exitNotAcknowledged;
  }
  return exitNotAcknowledged;
}

}  // namespace

int runDashboardCommand(const std::vector<std::string>& arguments) {
  const CommandLine line(
      arguments,
      {"--ip", "--port", "--method", "--resp-code", "--payload", "--event-id", "--session-id",
       "--client-type", "--client-version", "--udid", "--seconds", "--microseconds"},
      {});
  if (line.words() != std::vector<std::string>{"send"})
    throw UsageError("dashboard takes the word send");
  for (const char* option : {"--port", "--method", "--resp-code"}) needed(line, option);
  const std::string ip = needed(line, "--ip");
  const Dictionary payload = payloadFrom(line);
  const std::string udid = line.text("--udid").value_or("");
  const auto port = number<std::uint16_t>(line, "--port", 0);
  const auto method = number<std::uint16_t>(line, "--method", 0);
  const auto respCode = number<std::uint16_t>(line, "--resp-code", 0);
  const EventID eventID{number<std::uint16_t>(line, "--event-id", 1)};
  const auto sessionID = number<std::uint32_t>(line, "--session-id", 0);
  const auto clientType = number<std::int32_t>(line, "--client-type", 0);
  const auto clientVersion = number<std::uint16_t>(line, "--client-version", 0);

  const SendingPlatform platform;
  const TimeValue time = timeFrom(line);
  const auto fate = std::make_shared<std::promise<PacketFate>>();
  auto backend = DashboardBackend::initWithName("dashboard", ip, port, std::nullopt);
  if (!backend) throw std::runtime_error("there is no way to send to " + ip);
  backend->setSelfVersion("8.0");
  backend->setSessionID(sessionID);
  backend->setCompType(clientType);
  backend->setClientVersion(clientVersion);
  backend->setUdid(udid.c_str());
  backend->setPacketObserver([fate](EventID, PacketFate end) { fate->set_value(end); });
  const auto logLine = backend->sendMessage(&payload, time, method, respCode, eventID);
  if (!logLine) throw std::runtime_error("there is no memory for the packet");
  fmt::print("{}\n", *logLine);
  std::fflush(stdout);

  // The backend gives up after its last try, so this ends.
  backend->cleanup();
  backend.reset();
  return say(fate->get_future().get());
}

}  // namespace corvid::ctl
