// One call of the host on its way to the daemon and back.
//
// A call ends exactly once: with what the daemon answered, or by fail(). Its callbacks run then, on
// the session's thread.
#pragma once

#include <kj/async.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "base/Value.h"
#include "client/Completion.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid::library {

using Daemon = wire::ClientSession::Client;

struct SessionInfo {
  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
  Array frameworksToCheck;
  bool hasAggregationBlock = false;

  void encode(wire::ClientSession::SetSessionInfoParams::Builder target) const;
};

// What a new connection is told before anything else.
struct Replay {
  std::shared_ptr<const SessionInfo> sessionInfo;
  bool startConfig = false;

  // As the daemon takes it: who requires user info keeps what there is when given none.
  void replaceUserInfo(const std::optional<Dictionary>& userInfo);
  // Done when the daemon has taken it.
  kj::Promise<void> send(Daemon& daemon) const;
};

// A call that waits in the queue.
class Call {
 public:
  explicit Call(wire::Extent extent) : _extent(extent) {}
  virtual ~Call() = default;
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  const wire::Extent& extent() const { return _extent; }
  virtual void fail(int error) = 0;
  // Called when the call is accepted.
  virtual void remember(Replay&) const {}
  // Events travel together in a batch, other calls alone.
  virtual bool isEvent() const { return false; }

 private:
  const wire::Extent _extent;
};

// What travels in one remote call.
class RemoteCall : public Call {
 public:
  using Call::Call;
  // Done when what the daemon answered has been handed over. Otherwise fail() ends the call.
  virtual kj::Promise<void> perform(Daemon& daemon) = 0;
};

// A message for the session.
class Event final : public Call {
 public:
  struct Kind {
    std::uint16_t category;
    std::uint16_t type;
  };

  // Without a kind `content` is the whole message, otherwise its payload.
  Event(std::optional<Kind> kind, std::optional<Dictionary> content, wire::Extent extent,
        TextCompletion completion)
      : Call(extent), _kind(kind), _content(std::move(content)), _completion(completion) {}

  bool isEvent() const override { return true; }
  void fail(int error) override { _completion.fail(error); }
  void encode(wire::Message::Builder message) const;
  void answer(wire::TextResult::Reader result) { _completion.answer(result); }

 private:
  const std::optional<Kind> _kind;
  const std::optional<Dictionary> _content;
  const TextCompletion _completion;
};

// Events that travel together.
class EventBatch final : public RemoteCall {
 public:
  EventBatch() : RemoteCall(wire::Extent()) {}

  bool isEvent() const override { return true; }
  // False where an event has to wait for the next batch. The first never has to.
  bool hasRoomFor(const Call& event) const;
  void add(std::unique_ptr<Event> event);
  kj::Promise<void> perform(Daemon& daemon) override;
  void fail(int error) override;

 private:
  std::vector<std::unique_ptr<Event>> _events;
  std::size_t _words = 0;
  std::size_t _values = 0;
};

// The room that a call with such content takes.
inline capnp::MessageSize sizeHint(std::size_t words) {
  constexpr std::size_t envelope = 64;
  return {words + envelope, 0};
}

// A call of another kind. `request` is the daemon's operation, `fill` writes its parameters, and
// `note` tells what a later connection is told again.
template <class Callback, class Request, class Fill, class Note>
class SingleCall final : public RemoteCall {
 public:
  SingleCall(const wire::Extent& extent, Completion<Callback> completion, Request request,
             Fill fill, Note note)
      : RemoteCall(extent),
        _completion(completion),
        _request(request),
        _fill(std::move(fill)),
        _note(std::move(note)) {}
  ~SingleCall() noexcept override = default;  // what `fill` keeps may be one of kj's owners

  kj::Promise<void> perform(Daemon& daemon) override {
    auto request = (daemon.*_request)(sizeHint(extent().words));
    if constexpr (requires { request.setReplyWanted(true); })
      request.setReplyWanted(_completion.wantsReply());
    _fill(request);
    return request.send().then([this](auto&& results) { _completion.answer(results); });
  }
  void fail(int error) override { _completion.fail(error); }
  void remember(Replay& replay) const override { _note(replay); }

 private:
  const Completion<Callback> _completion;
  const Request _request;
  Fill _fill;
  const Note _note;
};

}  // namespace corvid::library
