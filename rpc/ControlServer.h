// The control object on the wire.
//
// Threads: the event loop's.
#pragma once

#include <memory>
#include <optional>

#include "protocol/ControlInterface.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/SocketPort.h"
#include "rpc/Outbox.h"

namespace corvid {

class ControlServer final : public wire::Control::Server {
 public:
  // `port` is borrowed. `outbox` is the connection's. A peer who may see all sees records and
  // storebags too.
  ControlServer(std::shared_ptr<ControlInterface> control, std::shared_ptr<Outbox> outbox,
                wire::SocketPort& port, bool seesAll)
      : _control(std::move(control)), _outbox(std::move(outbox)), _port(port), _seesAll(seesAll) {}

  // What waits for lines ends on this thread, whoever still could wake it.
  ~ControlServer() { *_waiter = nullptr; }

  kj::Promise<void> status(StatusContext context) override;
  kj::Promise<void> sessions(SessionsContext context) override;
  kj::Promise<void> explain(ExplainContext context) override;
  kj::Promise<void> watch(WatchContext context) override;
  kj::Promise<void> nextLines(NextLinesContext context) override;
  kj::Promise<void> metrics(MetricsContext context) override;
  kj::Promise<void> storebag(StorebagContext context) override;
  kj::Promise<void> refresh(RefreshContext context) override;
  kj::Promise<void> setLogLevel(SetLogLevelContext context) override;

 private:
  // Writes what waits; false where nothing does.
  bool writeLines(NextLinesContext& context);

  const std::shared_ptr<ControlInterface> _control;
  const std::shared_ptr<Outbox> _outbox;
  wire::SocketPort& _port;
  const bool _seesAll;
  std::unique_ptr<ControlWatch> _watch;
  // Of the call that waits for lines.
  std::shared_ptr<kj::Own<kj::PromiseFulfiller<void>>> _waiter =
      std::make_shared<kj::Own<kj::PromiseFulfiller<void>>>();
};

}  // namespace corvid
