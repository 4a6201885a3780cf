#include "tools/lab/conform/Check.h"

#include <utility>

#include "tools/lab/conform/Connection.h"

namespace corvid::lab::conform {

namespace {

bool confirms(const Reply& reply) { return reply.body.find("success") != std::string::npos; }

bool isExpected(const Reply& reply, Expected expected) {
  switch (expected) {
    case Expected::taken: return reply.isTaken();
    case Expected::refused: return reply.isRefused();
    case Expected::notTaken: return reply.isRefused() || reply.kind == Reply::Kind::end;
    case Expected::notFailed: return reply.kind == Reply::Kind::answer && !reply.isFailed();
  }
  return false;
}

}  // namespace

const std::optional<std::string>& pathOf(const Collector& collector, Address address) {
  switch (address) {
    case Address::realtime: return collector.realtime;
    case Address::uploads: return collector.uploads;
    case Address::logs: return collector.logs;
    case Address::events: break;
  }
  return collector.events;
}

bool breaks(const Reply& reply, Expected expected, bool isUpload) {
  return !isExpected(reply, expected) || (isUpload && confirms(reply) != reply.isTaken());
}

std::optional<Breach> breachOf(const Reply& reply, Expected expected, std::string sent) {
  if (!breaks(reply, expected)) return std::nullopt;
  return Breach{std::move(sent), reply.text()};
}

std::optional<Breach> tryAll(const Collector& collector, const std::vector<Trial>& trials,
                             bool isUpload) {
  for (const Trial& trial : trials) {
    Connection connection(collector);
    connection.send(trial.bytes);
    if (trial.endsWriting) connection.endWriting();
    const Reply reply = connection.reply();
    if (breaks(reply, trial.expected, isUpload)) return Breach{trial.sent, reply.text()};
  }
  return std::nullopt;
}

Check checkOf(std::string_view name, Address address, std::string_view rule, MakeTrials make) {
  return {name, address, rule, [address, make](Device& device) {
            return tryAll(device.collector(), make(device), address == Address::uploads);
          }};
}

}  // namespace corvid::lab::conform
