// The power log in the journal.
#pragma once

#include <cstddef>
#include <string>

#include "platform/Device.h"
#include "platform/system/JournalSocket.h"

namespace corvid {

// Writes each event as one structured entry; where there is no journal, nothing.
//
// Fields    MESSAGE, PRIORITY (6), SYSLOG_IDENTIFIER ("corvidd"), CORVID_SUBSYSTEM,
//           CORVID_EVENT_NAME, and one for each entry of the payload in its order: fieldName of the
//           key, and the value as text, as in log lines.
// Limits    mostBytes an entry. What of the payload has no room is left out and counted in
//           CORVID_OMITTED.
class JournalPowerLog final : public PowerLog {
 public:
  static constexpr std::size_t mostBytes = 64 << 10;

  // `socket`: path of the journal's socket.
  explicit JournalPowerLog(std::string socket) : _socket(std::move(socket)) {}

  void logRegisteredEvent(std::uint32_t subsystem, std::string_view event,
                          const Dictionary& payload) override;

  // "CORVID_" and the key in upper case, "_" for each byte that no field name may have, cut after
  // 64 characters.
  static std::string fieldName(std::string_view key);

 private:
  JournalSocket _socket;
};

}  // namespace corvid
