// One call of the host on its way to the daemon and back.
//
// A call ends exactly once: with what the daemon answered, or by fail(). Its callbacks run then, on
// the session's thread.
#pragma once

#include <kj/async.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Value.h"
#include "client/UploadedFile.h"
#include "client/include/corvid/corvid.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/ValueCodec.h"

namespace corvid::library {

// What the host gave with a call to hear of its end.
template <class Callback>
struct Completion {
  Callback callback = nullptr;
  corvid_finished_callback_t finished = nullptr;
  void* context = nullptr;

  bool wantsReply() const { return callback != nullptr; }
  void end(corvid_outcome_t outcome) const {
    if (finished != nullptr) finished(context, outcome);
  }
};

struct SessionInfo {
  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
  Array frameworksToCheck;
  bool hasAggregationBlock = false;
};

// What a new connection is told before anything else.
struct Replay {
  std::shared_ptr<const SessionInfo> sessionInfo;
  bool startConfig = false;
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
  // Events travel together, other calls alone.
  virtual bool isEvent() const { return false; }

 private:
  const wire::Extent _extent;
};

// What travels in one remote call.
class RemoteCall : public Call {
 public:
  using Daemon = wire::ClientSession::Client;
  using Call::Call;
  // Done when what the daemon answered has been handed over. Otherwise fail() ends the call.
  virtual kj::Promise<void> perform(Daemon& daemon) = 0;
};

using TextHandler = Completion<corvid_text_callback_t>;

// A message for the session, by category and type or as a dictionary.
class Event final : public Call {
 public:
  Event(std::uint16_t category, std::uint16_t type, std::optional<Dictionary> payload,
        wire::Extent extent, TextHandler handler);
  Event(Dictionary message, wire::Extent extent, TextHandler handler);

  bool isEvent() const override { return true; }
  void fail(int error) override;
  void encode(wire::Message::Builder message) const;
  void answer(wire::TextResult::Reader result);

 private:
  const bool _isDictionary;
  const std::uint16_t _category;
  const std::uint16_t _type;
  const std::optional<Dictionary> _content;
  const TextHandler _handler;
};

// Events that travel together.
class EventBatch final : public RemoteCall {
 public:
  EventBatch() : RemoteCall(wire::Extent()) {}

  bool isEvent() const override { return true; }
  // Events only. False, and `event` stays, where it has to wait for the next batch.
  bool add(std::unique_ptr<Call>& event);
  kj::Promise<void> perform(Daemon& daemon) override;
  void fail(int error) override;

 private:
  std::vector<std::unique_ptr<Event>> _events;
  std::size_t _words = 0;
  std::size_t _values = 0;
};

using StatesHandler = Completion<corvid_states_callback_t>;
using FlushHandler = Completion<corvid_flush_callback_t>;
using SuccessHandler = Completion<corvid_success_callback_t>;
// setSessionInfo has no reply.
using NoCallback = void (*)(void* context, int error);
using DoneHandler = Completion<NoCallback>;

std::unique_ptr<RemoteCall> setSessionInfo(std::shared_ptr<const SessionInfo> info,
                                           wire::Extent extent, DoneHandler handler);
std::unique_ptr<RemoteCall> startConfig(StatesHandler handler);
std::unique_ptr<RemoteCall> fetchStates(std::optional<Dictionary> userInfo, wire::Extent extent,
                                        StatesHandler handler);
std::unique_ptr<RemoteCall> fetchDisplayURL(TextHandler handler);
std::unique_ptr<RemoteCall> flush(FlushHandler handler);
std::unique_ptr<RemoteCall> finish(TextHandler handler);
// Without a file the daemon hears of the URL all the same, and refuses it.
std::unique_ptr<RemoteCall> uploadFile(std::string fileURL, std::optional<UploadedFile> file,
                                       wire::Extent extent, SuccessHandler handler);
std::unique_ptr<RemoteCall> uploadLogData(Array logData, wire::Extent extent,
                                          SuccessHandler handler);
std::unique_ptr<RemoteCall> sendSingleMessage(Dictionary sessionInfo,
                                              std::optional<Dictionary> userInfo,
                                              std::uint16_t category, std::uint16_t type,
                                              std::optional<Dictionary> payload,
                                              wire::Extent extent, TextHandler handler);

}  // namespace corvid::library
