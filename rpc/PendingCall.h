// A client's call between its operation and its answer.
//
// The call has one slot for each reply it waits for, in a derived class, and each slot a sink in a
// Reply that the session holds. A sink that is used on the connection's thread fills its slot there
// and then; from any other thread the outcome goes through the outbox. Slots are thus touched on
// the connection's thread only.
#pragma once

#include <kj/async.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <tuple>
#include <utility>

#include "protocol/Reply.h"
#include "rpc/Outbox.h"

namespace corvid {

class PendingCall {
 public:
  explicit PendingCall(std::shared_ptr<Outbox> outbox) : _outbox(std::move(outbox)) {}
  virtual ~PendingCall() = default;
  PendingCall(const PendingCall&) = delete;
  PendingCall& operator=(const PendingCall&) = delete;

  Outbox& outbox() const { return *_outbox; }

  // The connection's thread.
  void open() { ++_open; }
  void settle() {
    if (--_open == 0 && _waiter.get() != nullptr) _waiter->fulfill();
  }
  bool isSettled() const { return _open == 0; }
  // Done when every slot is settled. Once; the promise must end before the event loop.
  kj::Promise<void> whenSettled() {
    auto pair = kj::newPromiseAndFulfiller<void>();
    _waiter = kj::mv(pair.fulfiller);
    return pair.promise.attach(kj::defer([this] { _waiter = nullptr; }));
  }

 private:
  const std::shared_ptr<Outbox> _outbox;
  std::size_t _open = 0;
  kj::Own<kj::PromiseFulfiller<void>> _waiter;
};

// What a reply gave; nothing where it was dropped unanswered, or none was wanted.
template <class... Results>
using Slot = std::optional<std::tuple<Results...>>;

template <class... Results>
class SlotSink final : public ReplySink<Results...> {
 public:
  // `slot` is part of `call`.
  SlotSink(std::shared_ptr<PendingCall> call, Slot<Results...>& slot)
      : _call(std::move(call)), _slot(&slot) {
    _call->open();
  }
  ~SlotSink() override {
    if (_call) settle(std::nullopt);
  }
  void answer(Results... results) override { settle(std::make_tuple(std::move(results)...)); }

 private:
  void settle(Slot<Results...> outcome) {
    const std::shared_ptr<PendingCall> call = std::move(_call);
    if (call->outbox().onConnectionThread()) {
      *_slot = std::move(outcome);
      call->settle();
      return;
    }
    call->outbox().post([call, slot = _slot, result = std::move(outcome)]() mutable {
      *slot = std::move(result);
      call->settle();
    });
  }

  std::shared_ptr<PendingCall> _call;
  Slot<Results...>* const _slot;
};

// A call with a single reply.
template <class... Results>
class SingleCall final : public PendingCall {
 public:
  using PendingCall::PendingCall;
  Slot<Results...> slot;
};

// Events that travelled together, each with a reply of its own.
class MessagesCall final : public PendingCall {
 public:
  using TextSlot = Slot<std::optional<std::string>>;
  MessagesCall(std::shared_ptr<Outbox> outbox, std::size_t messages)
      : PendingCall(std::move(outbox)), slots(messages) {}
  std::vector<TextSlot> slots;
};

}  // namespace corvid
