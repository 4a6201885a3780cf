// Records events in the machine's power log.
#pragma once

#include "backends/CorvidBackend.h"

namespace corvid {

// Events are those of the media server subsystem. The base's entry point does not lead to
// sendMessage below: events of clients are not recorded. Who has the backend itself may record.
//
// Threads: any.
class WattbookBackend final : public CorvidBackend {
  struct Token {
    explicit Token() = default;
  };

 public:
  // `profile` may be null.
  static std::shared_ptr<WattbookBackend> initWithName(const std::string& name,
                                                       const Dictionary* profile,
                                                       const SharedIdentity& identity);
  // For initWithName only: nobody else has a token.
  WattbookBackend(Token, const std::string& name, const Dictionary* profile,
                  const SharedIdentity& identity);

  using CorvidBackend::sendMessage;
  // Records the payload with method, response code and event ID in it, as long as there is a
  // method and a payload. Answers nothing.
  std::optional<std::string> sendMessage(const Dictionary* payload, const TimeValue* timestamp,
                                         std::uint16_t method, std::uint16_t respCode,
                                         EventID eventID);
};

}  // namespace corvid
