#include "platform/system/JournalPowerLog.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "base/Describe.h"
#include "base/Log.h"
#include "base/Text.h"

namespace corvid {

namespace {

constexpr std::size_t longestFieldName = 64;

}  // namespace

std::string JournalPowerLog::fieldName(std::string_view key) {
  std::string name = "CORVID_";
  for (const char c : key.substr(0, longestFieldName - name.size())) {
    if (c >= 'a' && c <= 'z')
      name += static_cast<char>(c - 'a' + 'A');
    else
      name += isASCIILetterOrDigit(c) ? c : '_';
  }
  return name;
}

void JournalPowerLog::logRegisteredEvent(std::uint32_t subsystem, std::string_view event,
                                         const Dictionary& payload) {
  std::string entry;
  appendJournalField(entry, "MESSAGE", event);
  appendJournalField(entry, "PRIORITY", "6");
  appendJournalField(entry, "SYSLOG_IDENTIFIER", "corvidd");
  appendJournalField(entry, "CORVID_SUBSYSTEM", std::to_string(subsystem));
  appendJournalField(entry, "CORVID_EVENT_NAME", event);
  constexpr std::size_t roomForOmitted = 64;
  std::size_t omitted = 0;
  std::string field;
  for (const auto& [key, value] : payload) {
    field.clear();
    appendJournalField(field, fieldName(key), description(value));
    if (entry.size() + field.size() + roomForOmitted > mostBytes)
      ++omitted;
    else
      entry += field;
  }
  if (omitted > 0) appendJournalField(entry, "CORVID_OMITTED", std::to_string(omitted));
  const int error = _socket.send(entry);
  if (error != 0 && error != ENOENT)
    logWarning("Power log: the event {} is lost: {}", event, std::strerror(error));
}

}  // namespace corvid
