// A client's call between its operation and its answer.
//
// The call has a slot for each reply that it waits for, and each slot a sink in a Reply that the
// session holds. A sink that is used on the connection's thread fills its slot there and then; from
// any other thread the outcome goes through the outbox. Slots are thus touched on the connection's
// thread only.
#pragma once

#include <kj/async.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "protocol/Reply.h"
#include "rpc/Outbox.h"

namespace corvid {

template <class... Results>
class PendingCall : public std::enable_shared_from_this<PendingCall<Results...>> {
 public:
  // What a reply gave; nothing where it was dropped unanswered, or none was wanted.
  using Outcome = std::optional<std::tuple<Results...>>;

  PendingCall(std::shared_ptr<Outbox> outbox, std::size_t slots)
      : _outbox(std::move(outbox)), _outcomes(slots) {}
  PendingCall(const PendingCall&) = delete;
  PendingCall& operator=(const PendingCall&) = delete;

  // The reply that fills a slot; an empty one where the client wants none.
  Reply<Results...> reply(std::size_t slot, bool wanted) {
    if (!wanted) return {};
    ++_open;
    return Reply<Results...>(std::make_unique<Sink>(this->shared_from_this(), slot));
  }
  const std::vector<Outcome>& outcomes() const { return _outcomes; }

  // Runs `finish`, which owns the call, when every reply has its outcome: at once where the session
  // answered while it was called. Once; the promise must end before the event loop.
  template <class Finish>
  kj::Promise<void> whenSettled(Finish finish) {
    if (_open == 0) {
      finish();
      return kj::READY_NOW;
    }
    auto pair = kj::newPromiseAndFulfiller<void>();
    _waiter = kj::mv(pair.fulfiller);
    return pair.promise.attach(kj::defer([this] { _waiter = nullptr; })).then(kj::mv(finish));
  }

 private:
  class Sink final : public ReplySink<Results...> {
   public:
    Sink(std::shared_ptr<PendingCall> call, std::size_t slot)
        : _call(std::move(call)), _slot(slot) {}
    ~Sink() override {
      if (_call) settle(std::nullopt);
    }
    void answer(Results... results) override { settle(std::make_tuple(std::move(results)...)); }

   private:
    void settle(Outcome outcome) {
      const std::shared_ptr<PendingCall> call = std::move(_call);
      if (call->_outbox->onConnectionThread()) return call->settle(_slot, std::move(outcome));
      call->_outbox->post([call, slot = _slot, outcome = std::move(outcome)]() mutable {
        call->settle(slot, std::move(outcome));
      });
    }

    std::shared_ptr<PendingCall> _call;
    const std::size_t _slot;
  };

  void settle(std::size_t slot, Outcome outcome) {
    _outcomes[slot] = std::move(outcome);
    if (--_open == 0 && _waiter.get() != nullptr) _waiter->fulfill();
  }

  const std::shared_ptr<Outbox> _outbox;
  std::vector<Outcome> _outcomes;
  std::size_t _open = 0;
  kj::Own<kj::PromiseFulfiller<void>> _waiter;
};

}  // namespace corvid
