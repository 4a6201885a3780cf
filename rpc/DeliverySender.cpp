#include "rpc/DeliverySender.h"

#include <utility>

#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid {

namespace {

void encode(const Delivery& delivery, wire::Delivery::Builder target) {
  wire::encode(delivery.message, [&](auto size) { return target.initMessage(size); });
  target.setTimestamp(delivery.timestamp);
  target.setCategory(delivery.category);
  target.setType(delivery.type);
  wire::encode(delivery.payload, [&](auto size) { return target.initPayload(size); });
}

}  // namespace

DeliverySender::DeliverySender(Outbox& outbox, const PeerGuard& guard,
                               capnp::TwoPartyVatNetwork& network, std::function<Client()> client)
    : _outbox(outbox),
      _guard(guard),
      _network(network),
      _getClient(std::move(client)),
      _calls(*this) {}

void DeliverySender::flush() {
  if (!_outbox.hasDeliveries() || _inFlight >= limits::deliveriesInFlight) return;
  auto [deliveries, memory] = _outbox.takeDeliveries();
  if (deliveries.empty()) return;
  auto request = _getClient().sendMessagesToClientRequest();
  auto list = request.initDeliveries(wire::count(deliveries.size()));
  for (capnp::uint i = 0; i < list.size(); ++i) encode(deliveries[i], list[i]);
  ++_inFlight;
  _calls.add(request.send()
                 .ignoreResult()
                 .then([this] { acknowledged(); }, [this](kj::Exception&&) { acknowledged(); })
                 .attach(std::move(memory)));
}

void DeliverySender::acknowledged() {
  --_inFlight;
  flushIfClientReads();
}

void DeliverySender::flushIfClientReads() {
  if (_guard.hasWrittenAll(_network)) flush();
}

}  // namespace corvid
