// What a client and the daemon may ask of each other.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/LogFields.h"
#include "base/Value.h"
#include "protocol/Reason.h"
#include "protocol/Reply.h"

namespace corvid {

// Names of the backends that report; absent where there are no backends.
using StatesReply = Reply<std::optional<Array>>;
// The text that dispatching a message gave, absent where it gave none.
struct MessageAnswer : std::optional<std::string> {
  using std::optional<std::string>::optional;
  MessageAnswer(std::optional<std::string> text) : std::optional<std::string>(std::move(text)) {}
  // Why nobody took the message; known where there was nobody, and else where the client wants
  // reasons.
  std::optional<Reason> dropped{};
};
using ResultReply = Reply<MessageAnswer>;
using FlushReply = Reply<std::optional<std::string>, std::optional<CorvidError>>;
using SuccessReply = Reply<bool>;
using LogDataReply = Reply<bool, std::optional<CorvidError>>;

// A session's backends and what they do now.
struct StatesReport {
  struct Backend {
    std::string name;
    std::string_view state;  // a word of a static text
    Reason reason = Reason::reporting;
    bool reports = false;  // its name is among the states
    bool operator==(const Backend&) const = default;
  };
  std::optional<Reason> reason{};  // why there are none; absent where there are
  std::vector<Backend> backends{};
  bool operator==(const StatesReport&) const = default;
};

// What a client may ask of its session. The transport calls these on the connection's own thread,
// one after the other in the order in which the client made them; replies may come from any thread.
class ClientSessionInterface {
 public:
  virtual ~ClientSessionInterface() = default;

  // What the log lines of the connection's thread are about, until that ends; may be null.
  virtual std::shared_ptr<const LogSubject> logSubject() const { return nullptr; }

  virtual void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                              Array frameworksToCheck, bool hasAggregationBlock) = 0;
  virtual void startConfigWithCompletionHandler(StatesReply reply) = 0;
  virtual void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo, StatesReply reply) = 0;
  virtual void fetchDisplayURL(Reply<std::string> reply) = 0;
  virtual void sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                       std::optional<Dictionary> payload, ResultReply reply) = 0;
  virtual void sendMessageWithDictionary(Dictionary message, ResultReply reply) = 0;
  virtual void flushMessagesWithCompletion(FlushReply completion) = 0;
  virtual void finishSessionWithReply(ResultReply reply) = 0;
  // `fileURL` is a file URL, `extensionToken` names what the client granted with it.
  virtual void uploadFileAtPath(std::string fileURL, std::string extensionToken,
                                SuccessReply completion) = 0;
  virtual void uploadLogData(Array logData, LogDataReply completion) = 0;
  virtual void sendMessageWithSessionInfo(Dictionary sessionInfo,
                                          std::optional<Dictionary> userInfo,
                                          std::uint16_t category, std::uint16_t type,
                                          std::optional<Dictionary> payload, ResultReply reply) = 0;

  // The client wants to know what becomes of its messages, from here on.
  virtual void wantReasons() {}
  // What the backends do now and why. Whoever changes that says so to the connection
  // (statesMayHaveChanged).
  virtual StatesReport statesReport() const = 0;
};

// What the daemon may ask of a client.
class ClientSessionReplyInterface {
 public:
  virtual ~ClientSessionReplyInterface() = default;

  // Delivers a message to the client's aggregation block; with every argument absent or zero it
  // tells the client's aggregator to shut down. Does not wait for the client. Any thread.
  virtual void sendMessageToClient(std::optional<Dictionary> message, double timestamp,
                                   std::uint16_t category, std::uint16_t type,
                                   std::optional<Dictionary> payload) = 0;
};

}  // namespace corvid
