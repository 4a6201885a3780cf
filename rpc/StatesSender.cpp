#include "rpc/StatesSender.h"

#include <utility>

#include "protocol/wire/ValueCodec.h"

namespace corvid {

namespace {

capnp::Text::Reader wordOnWire(Reason reason) {
  const std::string_view word = wordOf(reason);
  return {word.data(), word.size()};
}

// The names of the backends that report, as sessions answer them.
Array reportingStates(const StatesReport& report) {
  Array names;
  for (const auto& backend : report.backends)
    if (backend.reports) names.emplace_back(backend.name);
  return names;
}

}  // namespace

void encode(const StatesReport& report, wire::StatesReport::Builder target) {
  if (report.reason) target.setReason(wordOnWire(*report.reason));
  auto backends = target.initBackends(wire::count(report.backends.size()));
  for (capnp::uint i = 0; i < backends.size(); ++i) {
    const StatesReport::Backend& backend = report.backends[i];
    backends[i].setName(wire::textReader(backend.name));
    backends[i].setState({backend.state.data(), backend.state.size()});
    backends[i].setReason(wordOnWire(backend.reason));
  }
}

StatesSender::StatesSender(const ClientSessionInterface& session, Outbox& outbox,
                           const PeerGuard& guard, capnp::TwoPartyVatNetwork& network,
                           std::function<Client()> client)
    : _session(session),
      _outbox(outbox),
      _guard(guard),
      _network(network),
      _getClient(std::move(client)),
      _calls(*this) {}

void StatesSender::setWanted(bool wanted) {
  if (!wanted) return _told.reset();
  // A client that has just described itself knows that it is not configured.
  if (!_told) _told = {.reason = Reason::notConfigured};
}

void StatesSender::told(const StatesReport& report) {
  if (_told) _told = report;
}

void StatesSender::flush() {
  if (!_told || _isUnderWay || !_outbox.takeStatesNote()) return;
  StatesReport report = _session.statesReport();
  if (report == *_told) return;
  auto request = _getClient().statesChangedRequest();
  auto target = request.initReport();
  encode(report, target);
  if (!report.reason)
    wire::encode(reportingStates(report), [&](auto size) { return target.initStates(size); });
  _told = std::move(report);
  _isUnderWay = true;
  _calls.add(request.send().ignoreResult().then([this] { acknowledged(); },
                                                [this](kj::Exception&&) { acknowledged(); }));
}

void StatesSender::acknowledged() {
  _isUnderWay = false;
  flushIfClientReads();
}

void StatesSender::flushIfClientReads() {
  if (_guard.hasWrittenAll(_network)) flush();
}

}  // namespace corvid
