// One connection to the daemon: the event loop that moves a session's calls.
//
// A call leaves at once while few are under way; past that, calls gather in the queue and travel
// together, so that a busy daemon gets fewer and larger messages.
//
// Threads: the session's own.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <kj/async.h>

#include <cstddef>
#include <list>
#include <memory>
#include <vector>

#include "client/Call.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/SocketPort.h"

namespace corvid::library {

class Link final : private kj::TaskSet::ErrorHandler {
 public:
  // The session, as its connection sees it.
  class Owner {
   public:
    // What travels next, where there is something; otherwise the owner wakes the port later.
    virtual std::unique_ptr<RemoteCall> nextCall(bool eventsToo) = 0;
    virtual void nothingUnderWay() = 0;
    virtual bool isStopping() = 0;
    virtual void reconnected() = 0;
    virtual void received(wire::Delivery::Reader delivery) = 0;

   protected:
    ~Owner() = default;
  };

  // `owner` and `port` are borrowed.
  Link(Owner& owner, wire::SocketPort& port);
  ~Link();

  // Sends `replay` before anything else; the owner hears when the daemon has taken it.
  void replay(const Replay& replay);
  // Until the connection is lost or the owner stops.
  void run(kj::WaitScope& scope);
  // The calls that have not ended, in order.
  std::vector<std::unique_ptr<RemoteCall>> takeUnfinished();

 private:
  class Replies;
  using UnderWay = std::list<std::unique_ptr<RemoteCall>>;

  void taskFailed(kj::Exception&&) override {}
  void sendWhatWaits();
  void start(std::unique_ptr<RemoteCall> call, bool isBatch);
  void ended(UnderWay::iterator call, bool isBatch);
  kj::Promise<void> whenWoken();

  Owner& _owner;
  wire::SocketPort& _port;
  wire::MessageSocket _stream;
  capnp::TwoPartyVatNetwork _network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> _rpc;
  RemoteCall::Daemon _daemon;
  UnderWay _underWay;
  std::size_t _batchesUnderWay = 0;
  kj::Own<kj::PromiseFulfiller<void>> _end;
  kj::TaskSet _tasks;
};

}  // namespace corvid::library
