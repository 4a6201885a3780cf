#include "client/Link.h"

#include <capnp/rpc-twoparty.h>
#include <kj/async.h>

#include <cstddef>
#include <exception>
#include <list>
#include <optional>
#include <utility>

#include "base/Thread.h"
#include "client/Call.h"
#include "client/Opaque.h"
#include "client/Session.h"
#include "protocol/Limits.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/SocketPort.h"

namespace corvid::library {

namespace {

constexpr std::size_t mostBatchesUnderWay = 4;
constexpr std::size_t mostCallsUnderWay = 32;
static_assert(mostCallsUnderWay < limits::callsInFlight);

int errorOf(const kj::Exception& exception) {
  switch (exception.getType()) {
    case kj::Exception::Type::DISCONNECTED: return CORVID_ERROR_CONNECTION_LOST;
    case kj::Exception::Type::UNIMPLEMENTED: return CORVID_ERROR_NOT_SUPPORTED;
    default: return CORVID_ERROR_BAD_REPLY;
  }
}

const corvid_dictionary_t* orNone(const std::optional<Dictionary>& dictionary) {
  return dictionary ? outside(&*dictionary) : nullptr;
}

// What the daemon may ask of the client.
class Replies final : public wire::ClientSessionReply::Server {
 public:
  explicit Replies(const Session& session) : _session(session) {}

  kj::Promise<void> sendMessagesToClient(SendMessagesToClientContext context) override {
    for (const wire::Delivery::Reader delivery : context.getParams().getDeliveries())
      received(delivery);
    return kj::READY_NOW;
  }

 private:
  void received(wire::Delivery::Reader delivery) {
    const corvid_options_t& host = _session.handlers();
    if (host.message == nullptr || _session.isStopping()) return;
    std::optional<Dictionary> message;
    std::optional<Dictionary> payload;
    try {
      message = wire::ValueDecoder().dictionary(delivery.hasMessage(), delivery.getMessage());
      payload = wire::ValueDecoder().dictionary(delivery.hasPayload(), delivery.getPayload());
    } catch (const std::exception&) {
      return;  // not something that this library knows; the next one may be
    }
    host.message(host.context, orNone(message), delivery.getTimestamp(), delivery.getCategory(),
                 delivery.getType(), orNone(payload));
  }

  const Session& _session;
};

// One connection to the daemon.
class Link final : private kj::TaskSet::ErrorHandler {
 public:
  // Both are borrowed.
  Link(Session& session, wire::SocketPort& port)
      : _session(session),
        _port(port),
        _stream(port),
        _network(_stream, limits::descriptorsPerMessage, capnp::rpc::twoparty::Side::CLIENT),
        _rpc(capnp::makeRpcServer(_network, kj::heap<Replies>(session))),
        _daemon(nullptr),
        _tasks(*this) {
    capnp::MallocMessageBuilder message(4);
    auto daemon = message.initRoot<capnp::rpc::twoparty::VatId>();
    daemon.setSide(capnp::rpc::twoparty::Side::SERVER);
    _daemon = _rpc.bootstrap(daemon).castAs<wire::ClientSession>();
  }

  // Sends `replay` before anything else; the host hears when the daemon has taken it.
  void tell(const Replay& replay) {
    _tasks.add(replay.send(_daemon).then([this] {
      const corvid_options_t& host = _session.handlers();
      if (!_session.isStopping() && host.reconnected != nullptr) host.reconnected(host.context);
    }));
  }

  // Until the connection is lost or the session stops.
  void run(kj::WaitScope& scope) {
    auto end = kj::newPromiseAndFulfiller<void>();
    _end = kj::mv(end.fulfiller);
    auto woken = whenWoken().eagerlyEvaluate(nullptr);
    sendWhatWaits();
    _network.onDisconnect().exclusiveJoin(kj::mv(end.promise)).wait(scope);
  }

  // The calls that have not ended, in order.
  std::list<std::unique_ptr<RemoteCall>> takeUnfinished() { return std::move(_underWay); }

 private:
  using UnderWay = std::list<std::unique_ptr<RemoteCall>>;

  void taskFailed(kj::Exception&&) override {}

  kj::Promise<void> whenWoken() {
    return _port.whenWoken().then([this] {
      if (_session.isStopping())
        _end->fulfill();
      else
        sendWhatWaits();
      return whenWoken();
    });
  }

  void sendWhatWaits() {
    while (_underWay.size() < mostCallsUnderWay) {
      auto call = _session.next(_batchesUnderWay < mostBatchesUnderWay);
      if (!call) break;
      const bool isBatch = call->isEvent();
      start(std::move(call), isBatch);
    }
    if (_underWay.empty()) _session.nothingUnderWay();
  }

  void start(std::unique_ptr<RemoteCall> call, bool isBatch) {
    const auto place = _underWay.insert(_underWay.end(), std::move(call));
    if (isBatch) ++_batchesUnderWay;
    _tasks.add(kj::evalNow([&] { return (*place)->perform(_daemon); })
                   .then([this, place, isBatch] { ended(place, isBatch); },
                         [this, place, isBatch](kj::Exception&& exception) {
                           (*place)->fail(errorOf(exception));
                           ended(place, isBatch);
                         }));
  }

  void ended(UnderWay::iterator call, bool isBatch) {
    _underWay.erase(call);
    if (isBatch) --_batchesUnderWay;
    sendWhatWaits();
  }

  Session& _session;
  wire::SocketPort& _port;
  wire::MessageSocket _stream;
  capnp::TwoPartyVatNetwork _network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> _rpc;
  Daemon _daemon;
  UnderWay _underWay;
  std::size_t _batchesUnderWay = 0;
  kj::Own<kj::PromiseFulfiller<void>> _end;
  kj::TaskSet _tasks;
};

void serveConnection(Session& session, Descriptor socket) {
  std::list<std::unique_ptr<RemoteCall>> underWay;
  try {
    wire::SocketPort port(socket.get());
    kj::EventLoop loop(port);
    kj::WaitScope scope(loop);
    Link link(session, port);
    const std::optional<Replay> replay = session.attach(port);
    KJ_DEFER(session.detach());
    if (replay) link.tell(*replay);
    link.run(scope);
    underWay = link.takeUnfinished();
  } catch (const std::exception&) {
    // No descriptor for the event loop: the connection ends as if it were lost.
  }
  socket.reset();

  const auto waiting = session.leave();
  const bool stopping = session.isStopping();
  const int error = stopping ? CORVID_ERROR_CLOSED : CORVID_ERROR_CONNECTION_LOST;
  for (const auto& call : underWay) call->fail(error);
  for (const auto& call : waiting) call->fail(error);
  const corvid_options_t& host = session.handlers();
  if (!stopping && host.invalidated != nullptr) host.invalidated(host.context);
}

}  // namespace

std::thread serve(std::shared_ptr<Session> session) {
  return startThread("libcorvid", [session = std::move(session)] {
    const wire::QuietLibrary quiet;
    while (auto socket = session->awaitSocket()) serveConnection(*session, std::move(*socket));
    for (const auto& call : session->leave()) call->fail(CORVID_ERROR_CLOSED);
    const corvid_options_t& host = session->handlers();
    if (host.released != nullptr) host.released(host.context);
  });
}

}  // namespace corvid::library
