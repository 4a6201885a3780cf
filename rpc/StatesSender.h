// Tells a client that wants to know how its session's states change.
//
// What changes while the client does not read, or has not acknowledged what it was told last, is
// told together: the client hears the latest, and never twice the same.
//
// Threads: the event loop's.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <kj/async.h>

#include <functional>
#include <optional>

#include "protocol/ClientSessionInterface.h"
#include "protocol/corvid.capnp.h"
#include "rpc/Outbox.h"
#include "rpc/PeerGuard.h"

namespace corvid {

// Fills the report's place on the wire, save for the states.
void encode(const StatesReport& report, wire::StatesReport::Builder target);

class StatesSender final : private kj::TaskSet::ErrorHandler {
 public:
  using Client = wire::ClientSessionReply::Client;

  // All are borrowed. `client` gives the client's exported object.
  StatesSender(const ClientSessionInterface& session, Outbox& outbox, const PeerGuard& guard,
               capnp::TwoPartyVatNetwork& network, std::function<Client()> client);

  // The client wants to hear of changes from here on, or no longer.
  void setWanted(bool wanted);
  // The client has just been told this in an answer.
  void told(const StatesReport& report);
  // At the end of a call.
  void flush();
  // At any other time.
  void flushIfClientReads();

 private:
  void taskFailed(kj::Exception&&) override {}
  void acknowledged();

  const ClientSessionInterface& _session;
  Outbox& _outbox;
  const PeerGuard& _guard;
  capnp::TwoPartyVatNetwork& _network;
  const std::function<Client()> _getClient;
  std::optional<StatesReport> _told;  // what the client knows; nothing where it wants no changes
  bool _isUnderWay = false;           // told and not acknowledged
  kj::TaskSet _calls;
};

}  // namespace corvid
