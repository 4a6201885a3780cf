// What answers a client's call: the reply callback, and the error object that replies carry.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "protocol/Keys.h"

namespace corvid {

struct CorvidError {
  std::string domain{kCorvidErrorDomain};
  std::int64_t code = 0;
  std::string localizedDescription;

  static CorvidError of(std::int64_t code, std::string description) {
    return {std::string(kCorvidErrorDomain), code, std::move(description)};
  }
  bool operator==(const CorvidError&) const = default;
};

// The transport's side of a reply. The destructor of an unanswered sink reports "unanswered".
template <class... Results>
class ReplySink {
 public:
  virtual ~ReplySink() = default;
  virtual void answer(Results... results) = 0;
};

// A reply answers once; a reply that is destroyed unanswered tells the transport so, and the client
// library then drops its callback uncalled. A client that passed no callback gives an empty Reply.
//
// Threads: may be moved to, answered and destroyed on any thread.
template <class... Results>
class Reply {
 public:
  // No callback was given: answering does nothing.
  Reply() = default;
  explicit Reply(std::unique_ptr<ReplySink<Results...>> sink) : _sink(std::move(sink)) {}
  // A reply that calls `callback`; for callers inside the process.
  explicit Reply(std::function<void(Results...)> callback)
      : _sink(std::make_unique<CallbackSink>(std::move(callback))) {}

  // True while there is a callback that has not been answered.
  explicit operator bool() const { return _sink != nullptr; }

  void operator()(Results... results) {
    if (auto sink = std::move(_sink)) sink->answer(std::move(results)...);
  }

 private:
  struct CallbackSink final : ReplySink<Results...> {
    explicit CallbackSink(std::function<void(Results...)> function)
        : callback(std::move(function)) {}
    void answer(Results... results) override { callback(std::move(results)...); }
    std::function<void(Results...)> callback;
  };

  std::unique_ptr<ReplySink<Results...>> _sink;
};

}  // namespace corvid
