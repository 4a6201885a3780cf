// What the daemon may ask of a client.
#pragma once

#include <cstdint>
#include <optional>

#include "base/Value.h"

namespace corvid {

class ClientSessionReplyInterface {
 public:
  virtual ~ClientSessionReplyInterface() = default;

  // Delivers a message to the client's aggregation block; with every argument absent or zero it
  // tells the client's aggregator to shut down. Does not wait for the client. Any thread.
  virtual void sendMessageToClient(std::optional<Dictionary> message, double timestamp,
                                   std::uint16_t category, std::uint16_t type,
                                   std::optional<Dictionary> payload) = 0;
};

}  // namespace corvid
