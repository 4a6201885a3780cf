#include "rpc/DeliverySender.h"

#include <deque>
#include <utility>

#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid {

namespace {

capnp::uint count(std::size_t size) { return static_cast<capnp::uint>(size); }

void encode(const Delivery& delivery, wire::Delivery::Builder target) {
  if (delivery.message)
    wire::encode(*delivery.message, target.initMessage(count(delivery.message->size())));
  target.setTimestamp(delivery.timestamp);
  target.setCategory(delivery.category);
  target.setType(delivery.type);
  if (delivery.payload)
    wire::encode(*delivery.payload, target.initPayload(count(delivery.payload->size())));
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
  if (!_client) _client = _getClient();
  const std::deque<Delivery> deliveries = _outbox.takeDeliveries();
  if (deliveries.empty()) return;
  auto request = _client->sendMessagesToClientRequest();
  auto list = request.initDeliveries(count(deliveries.size()));
  for (std::size_t i = 0; i < deliveries.size(); ++i) encode(deliveries[i], list[count(i)]);
  ++_inFlight;
  _calls.add(request.send().ignoreResult().then([this] { acknowledged(); },
                                                [this](kj::Exception&&) { acknowledged(); }));
}

void DeliverySender::acknowledged() {
  --_inFlight;
  flushIfClientReads();
}

void DeliverySender::flushIfClientReads() {
  if (!_guard.isWriting() && _network.getCurrentQueueCount() <= 1) flush();
}

}  // namespace corvid
