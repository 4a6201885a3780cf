// Carries deliveries from a connection's outbox to its client.
//
// What waits travels together in one call. Nothing is sent while the client does not read, or does
// not acknowledge: deliveries then wait in the outbox, which is bounded.
//
// Threads: the event loop's.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <kj/async.h>

#include <cstddef>
#include <functional>

#include "protocol/corvid.capnp.h"
#include "rpc/Outbox.h"
#include "rpc/PeerGuard.h"

namespace corvid {

class DeliverySender final : private kj::TaskSet::ErrorHandler {
 public:
  using Client = wire::ClientSessionReply::Client;

  // All are borrowed. `client` gives the client's exported object.
  DeliverySender(Outbox& outbox, const PeerGuard& guard, capnp::TwoPartyVatNetwork& network,
                 std::function<Client()> client);

  // At the end of a call, so that what the call caused is written before later replies.
  void flush();
  // At any other time.
  void flushIfClientReads();

 private:
  void taskFailed(kj::Exception&&) override {}
  void acknowledged();

  Outbox& _outbox;
  const PeerGuard& _guard;
  capnp::TwoPartyVatNetwork& _network;
  const std::function<Client()> _getClient;
  std::size_t _inFlight = 0;
  kj::TaskSet _calls;
};

}  // namespace corvid
