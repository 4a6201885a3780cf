#include "platform/system/JournalPowerLog.h"

#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/Describe.h"
#include "base/Descriptor.h"
#include "base/Log.h"
#include "base/Text.h"
#include "base/UnixAddress.h"

// The journal's native protocol, one datagram an entry, is spoken here directly: it is documented
// as stable and small, while loading libsystemd costs 1 MB of resident memory.

namespace corvid {

namespace {

constexpr std::size_t longestFieldName = 64;

// "NAME=value\n"; a value of several lines has its length before it.
void appendField(std::string& entry, std::string_view name, std::string_view value) {
  entry += name;
  if (value.find('\n') == std::string_view::npos) {
    entry += '=';
  } else {
    entry += '\n';
    for (unsigned shift = 0; shift < 64; shift += 8)
      entry += static_cast<char>(std::uint64_t{value.size()} >> shift & 0xff);
  }
  entry += value;
  entry += '\n';
}

// 0, or the system's error number.
int sendDatagram(const std::string& path, std::string_view datagram) {
  const Descriptor socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return errno;
  if (UnixAddress(path).connect(socket.get()) != 0) return errno;
  return send(socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0 ? errno : 0;
}

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
  appendField(entry, "MESSAGE", event);
  appendField(entry, "PRIORITY", "6");
  appendField(entry, "SYSLOG_IDENTIFIER", "corvidd");
  appendField(entry, "CORVID_SUBSYSTEM", std::to_string(subsystem));
  appendField(entry, "CORVID_EVENT_NAME", event);
  constexpr std::size_t roomForOmitted = 64;
  std::size_t omitted = 0;
  std::string field;
  for (const auto& [key, value] : payload) {
    field.clear();
    appendField(field, fieldName(key), description(value));
    if (entry.size() + field.size() + roomForOmitted > mostBytes)
      ++omitted;
    else
      entry += field;
  }
  if (omitted > 0) appendField(entry, "CORVID_OMITTED", std::to_string(omitted));
  const int error = sendDatagram(_socket, entry);
  if (error != 0 && error != ENOENT)
    logWarning("Power log: the event {} is lost: {}", event, std::strerror(error));
}

}  // namespace corvid
