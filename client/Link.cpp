#include "client/Link.h"

#include <utility>

#include "protocol/Limits.h"

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

}  // namespace

// What the daemon may ask of the client.
class Link::Replies final : public wire::ClientSessionReply::Server {
 public:
  explicit Replies(Owner& owner) : _owner(owner) {}

  kj::Promise<void> sendMessagesToClient(SendMessagesToClientContext context) override {
    for (const wire::Delivery::Reader delivery : context.getParams().getDeliveries())
      _owner.received(delivery);
    return kj::READY_NOW;
  }

 private:
  Owner& _owner;
};

Link::Link(Owner& owner, wire::SocketPort& port)
    : _owner(owner),
      _port(port),
      _stream(port),
      _network(_stream, limits::descriptorsPerMessage, capnp::rpc::twoparty::Side::CLIENT),
      _rpc(capnp::makeRpcServer(_network, kj::heap<Replies>(owner))),
      _daemon(nullptr),
      _tasks(*this) {
  capnp::MallocMessageBuilder message(4);
  auto daemon = message.initRoot<capnp::rpc::twoparty::VatId>();
  daemon.setSide(capnp::rpc::twoparty::Side::SERVER);
  _daemon = _rpc.bootstrap(daemon).castAs<wire::ClientSession>();
}

Link::~Link() = default;

void Link::replay(const Replay& replay) {
  kj::Promise<void> taken = kj::READY_NOW;
  const auto send = [&](std::unique_ptr<RemoteCall> call) {
    auto& kept = *call;
    taken = taken.then([done = kept.perform(_daemon)]() mutable { return kj::mv(done); })
                .attach(kj::mv(call));
  };
  if (replay.sessionInfo) send(setSessionInfo(replay.sessionInfo, {}, {}));
  if (replay.startConfig) send(startConfig({}));
  _tasks.add(taken.then([this] { _owner.reconnected(); }));
}

void Link::run(kj::WaitScope& scope) {
  auto end = kj::newPromiseAndFulfiller<void>();
  _end = kj::mv(end.fulfiller);
  auto woken = whenWoken().eagerlyEvaluate(nullptr);
  sendWhatWaits();
  _network.onDisconnect().exclusiveJoin(kj::mv(end.promise)).wait(scope);
}

kj::Promise<void> Link::whenWoken() {
  return _port.whenWoken().then([this] {
    if (_owner.isStopping())
      _end->fulfill();
    else
      sendWhatWaits();
    return whenWoken();
  });
}

void Link::sendWhatWaits() {
  while (_underWay.size() < mostCallsUnderWay) {
    auto call = _owner.nextCall(_batchesUnderWay < mostBatchesUnderWay);
    if (!call) break;
    const bool isBatch = call->isEvent();
    start(std::move(call), isBatch);
  }
  if (_underWay.empty()) _owner.nothingUnderWay();
}

void Link::start(std::unique_ptr<RemoteCall> call, bool isBatch) {
  const auto place = _underWay.insert(_underWay.end(), std::move(call));
  if (isBatch) ++_batchesUnderWay;
  _tasks.add(kj::evalNow([&] { return (*place)->perform(_daemon); })
                 .then([this, place, isBatch] { ended(place, isBatch); },
                       [this, place, isBatch](kj::Exception&& exception) {
                         (*place)->fail(errorOf(exception));
                         ended(place, isBatch);
                       }));
}

void Link::ended(UnderWay::iterator call, bool isBatch) {
  _underWay.erase(call);
  if (isBatch) --_batchesUnderWay;
  sendWhatWaits();
}

std::vector<std::unique_ptr<RemoteCall>> Link::takeUnfinished() {
  std::vector<std::unique_ptr<RemoteCall>> calls;
  for (auto& call : _underWay) calls.push_back(std::move(call));
  return calls;
}

}  // namespace corvid::library
