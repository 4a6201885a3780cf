// Records events in the machine's power log.
#pragma once

#include <cstdint>
#include <string>

#include "backends/CorvidBackend.h"
#include "platform/Device.h"

namespace corvid {

// Writes events of the media server subsystem.
//
// Threads: any. `powerLog` is borrowed.
class PowerRecordWriter {
 public:
  explicit PowerRecordWriter(PowerLog& powerLog) : _powerLog(powerLog) {}

  // Records the payload with method, response code and event ID in it, as long as there is a
  // method and a payload.
  void record(const Dictionary* payload, std::uint16_t method, std::uint16_t respCode,
              EventID eventID) const;

 private:
  PowerLog& _powerLog;
};

// Events of clients are not recorded: the base's operation that sessions call does nothing here.
// Who has the backend itself records through records().
class WattbookBackend final : public CorvidBackend {
 public:
  // `profile` may be null.
  WattbookBackend(const std::string& name, const Dictionary* profile,
                  const SharedIdentity& identity);

  const PowerRecordWriter& records() const { return _records; }

 private:
  const PowerRecordWriter _records;
};

}  // namespace corvid
