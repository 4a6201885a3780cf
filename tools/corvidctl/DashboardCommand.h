// `corvidctl dashboard send`: one packet to a dashboard server, without the daemon.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Platform.h"

namespace corvid::ctl {

struct PacketOptions {
  std::string ip;
  std::uint16_t port = 0;
  std::uint16_t method = 0;
  std::uint16_t respCode = 0;
  std::string payload = "{}";  // a JSON object
  std::uint16_t eventID = 1;
  std::uint32_t sessionID = 0;
  std::int32_t clientType = 0;
  std::uint16_t clientVersion = 0;
  std::string udid;
  // Of the event; now where neither is given.
  std::optional<std::int64_t> seconds;
  std::optional<std::int32_t> microseconds;
};

// Prints the packet's log line, waits, says what became of it. 0 where it was acknowledged, 2 where
// it was not. tools::InputError where the payload cannot be meant.
int runDashboardCommand(const PacketOptions& options);

// The services that a dashboard backend needs to send packets, installed as long as it is there.
// Log data is not uploaded by it.
class SendingPlatform {
 public:
  SendingPlatform();
  ~SendingPlatform();
  SendingPlatform(const SendingPlatform&) = delete;
  SendingPlatform& operator=(const SendingPlatform&) = delete;

 private:
  Platform _platform;
};

}  // namespace corvid::ctl
