// A session of the client library whose calls are made one after the other, each waited for.
#pragma once

#include <corvid/corvid.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/base/Value.h"
#include "protocol/CorvidError.h"

namespace corvid::ctl {

// What became of a call. `error` is what the library says of a call that failed on the way.
struct CallOutcome {
  corvid_outcome_t outcome = CORVID_OUTCOME_DONE;
  int error = CORVID_OK;
  std::optional<std::string> text;
  std::optional<Array> states;
  bool success = false;
  std::optional<CorvidError> failure;
};

// Threads   One caller. The handlers run on the library's thread.
// Errors    A call that the library refuses is a std::runtime_error that says why.
class Client {
 public:
  struct Handlers {
    std::function<void(std::optional<Dictionary> message, double timestamp, std::uint16_t category,
                       std::uint16_t type, std::optional<Dictionary> payload)>
        message;
    std::function<void()> invalidated;
  };

  // `root` is absent for the library's own choice. Connects.
  Client(const std::optional<std::string>& root, Handlers handlers);
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
  const Handlers _handlers;
  corvid_session_t* _session = nullptr;
};

}  // namespace corvid::ctl
