// A session of the client library whose calls are made one after the other, each waited for.
#pragma once

#include <corvid/corvid.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "base/Mutex.h"
#include "base/Value.h"
#include "protocol/Reply.h"

namespace corvid::ctl {

// What the daemon made of a call.
struct CallOutcome {
  corvid_outcome_t end = CORVID_OUTCOME_DONE;  // never CORVID_OUTCOME_FAILED
  std::optional<std::string> text;
  std::optional<Array> states;
  bool success = false;
  std::optional<CorvidError> failure;
};

// A call, or the connection before it, that failed; what() says why.
struct CallError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Threads   One caller. The handlers run on the library's thread.
// Errors    CallError, from every operation. Where the connection was lost, `invalidated` has
//           returned before.
class Client {
 public:
  struct Handlers {
    std::function<void(std::optional<Dictionary> message, double timestamp, std::uint16_t category,
                       std::uint16_t type, std::optional<Dictionary> payload)>
        message;
    std::function<void()> invalidated;
  };

  // Connects to the daemon below `root`; empty for the machine itself.
  Client(const std::string& root, Handlers handlers);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // With `reply` false a call is made without a callback.
  CallOutcome setSessionInfo(const Dictionary& sessionInfo,
                             const std::optional<Dictionary>& userInfo, const Array& frameworks,
                             bool hasAggregationBlock);
  CallOutcome startConfig(bool reply);
  CallOutcome fetchStates(const std::optional<Dictionary>& userInfo, bool reply);
  CallOutcome fetchDisplayURL(bool reply);
  CallOutcome sendMessage(std::uint16_t category, std::uint16_t type,
                          const std::optional<Dictionary>& payload, bool reply);
  CallOutcome sendMessageWithDictionary(const Dictionary& message, bool reply);
  CallOutcome flush(bool reply);
  CallOutcome finish(bool reply);
  CallOutcome uploadFile(const std::string& path, bool reply);
  CallOutcome uploadLogData(const Array& logData, bool reply);
  CallOutcome sendSingleMessage(const Dictionary& sessionInfo,
                                const std::optional<Dictionary>& userInfo, std::uint16_t category,
                                std::uint16_t type, const std::optional<Dictionary>& payload,
                                bool reply);

 private:
  template <class Make>
  CallOutcome perform(Make make) EXCLUDES(_mutex);
  void invalidated() EXCLUDES(_mutex);
  [[noreturn]] void failWithConnection() EXCLUDES(_mutex);

  const Handlers _handlers;
  corvid_session_t* _session = nullptr;

  Mutex _mutex;
  std::condition_variable_any _changed;
  bool _isInvalidated GUARDED_BY(_mutex) = false;
};

}  // namespace corvid::ctl
