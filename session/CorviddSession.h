// One client's session: configuration, dispatch, flushing, reporting states, aggregation.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backends/BackendSet.h"
#include "base/Mutex.h"
#include "base/Value.h"
#include "config/DeviceInformation.h"
#include "protocol/ClientSessionInterface.h"
#include "protocol/Connection.h"
#include "session/CorviddSessionDelegate.h"

namespace corvid {

// How a storebag section becomes backends; createBackends in the daemon.
using BackendSetCreator = std::function<std::optional<BackendTable>(
    const Dictionary* section, const Dictionary* sessionInfo, const Dictionary* userInfo,
    const char* udid)>;

// Threads   The client's calls run on the connection's thread, and the destructor's farewell too,
//           save where another session of the chain is delivering to this one as its client goes:
//           then it runs on that one's. The agent reads properties and calls
//           updateCombinedSessionID, syncReportingStates and shutdownSessionAggregation from other
//           sessions' threads, with its own mutex held.
//           Flush completions come on any thread and never touch the session. `_lock` guards the
//           fields and is never held across a call to the agent, a backend or the client; the
//           agent's mutex is always taken before it.
// Ownership Held by the agent's list and as the connection's exported object; holds agent and
//           connection. Ends when the last goes, after the connection's invalidation, and never
//           under the agent's mutex.
// Errors    A storebag that cannot be used leaves the client's call unanswered and the session as
//           it was.
class CorviddSession final : public ClientSessionInterface,
                             public std::enable_shared_from_this<CorviddSession> {
 public:
  static std::shared_ptr<CorviddSession> initWithSessionDelegate(
      std::shared_ptr<CorviddSessionDelegate> delegate, std::shared_ptr<Connection> connection,
      BackendSetCreator creator = createBackends);
  ~CorviddSession() override;  // sends the end message, flushes, shuts aggregation down, cleans up

  // ClientSessionInterface
  void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                      Array frameworksToCheck, bool hasAggregationBlock) override;
  void startConfigWithCompletionHandler(StatesReply reply) override;
  void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo, StatesReply reply) override;
  void fetchDisplayURL(Reply<std::string> reply) override;
  void sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                               std::optional<Dictionary> payload, ResultReply reply) override;
  void sendMessageWithDictionary(Dictionary message, ResultReply reply) override;
  void flushMessagesWithCompletion(FlushReply completion) override;
  void finishSessionWithReply(ResultReply reply) override;
  void uploadFileAtPath(std::string fileURL, std::string extensionToken,
                        SuccessReply completion) override;
  void uploadLogData(Array logData, LogDataReply completion) override;
  void sendMessageWithSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                  std::uint16_t category, std::uint16_t type,
                                  std::optional<Dictionary> payload,
                                  Reply<std::string> reply) override;

  // Sends one message through backends that live for it alone: no aggregation, no flush, no start
  // or end message. Any thread. Only user info and payload may be null.
  static void sendMessageWithSessionInfo(const Dictionary* sessionInfo, const Dictionary* userInfo,
                                         const Dictionary* storebag, std::uint16_t category,
                                         std::uint16_t type, const Dictionary* payload,
                                         const BackendSetCreator& creator = createBackends);

  // Properties that the agent reads.
  std::uint32_t sessionID() const { return _sessionID.load(std::memory_order_relaxed); }
  void setSessionID(std::uint32_t sessionID) { _sessionID = sessionID; }
  std::string sessionIDString() const;
  void setSessionIDString(std::string sessionIDString);
  std::optional<std::string> storebagVersion() const;
  void setStorebagVersion(std::optional<std::string> version);
  std::optional<Dictionary> userInfo() const;
  Dictionary sessionInfo() const;  // empty before there is one
  bool hasAggregator() const { return _hasAggregator.load(std::memory_order_relaxed); }
  void setHasAggregator(bool hasAggregator) { _hasAggregator = hasAggregator; }
  // The user info without a copy, for what happens once a message; null where there is none.
  std::shared_ptr<const Dictionary> sharedUserInfo() const;
  // For log lines.
  std::string description() const;
  // Level in the chain: that of the backend httpPost2, else of httpPost, else 0.
  std::int32_t getSessionHierarchy() const;

  // Called by the agent when the chain changes, with its mutex held: gives the backends the
  // combined session ID below the parents' (nothing: they keep theirs), and state and sampling
  // threshold of the parent's backends. `parent` is null where there is none.
  void updateCombinedSessionID(const std::optional<std::string>& parentSessionIDString);
  void syncReportingStates(const CorviddSession* parent);
  // Tells the client's aggregator, if it has one, to shut down.
  void shutdownSessionAggregation();

 private:
  // Category and types of the messages in which a session tells of its own life.
  static constexpr std::uint16_t sessionCategory = 0;
  enum SessionMessageType : std::uint16_t { sessionStart = 0, sessionEnd = 1, sessionFinish = 2 };

  struct Message {
    std::uint16_t category;
    std::uint16_t type;
    const Dictionary* payload;  // null: absent
    MessageFlag flag;
  };

  CorviddSession(std::shared_ptr<CorviddSessionDelegate> delegate,
                 std::shared_ptr<Connection> connection, BackendSetCreator creator);

  // Life cycle.
  std::shared_ptr<const BackendTable> createBackendsWithStorebag(const Dictionary& storebag) const;
  void updateSessionWithDefaultSessionInfo();
  void sendStartMessage();

  // Dispatch and flush.
  void logSendMessage() const;
  std::optional<std::string> sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                                     const Dictionary* payload);
  std::optional<std::string> sendMessageWithDictionary(const Dictionary& message);
  std::shared_ptr<const BackendTable> backendsForMessage() const;
  std::optional<std::string> dispatch(const Message& message, const BackendTable& table);
  void internalSendMessage(const Dictionary& payload, std::uint16_t method, std::uint16_t respCode);
  void internalFlushMessagesWithCompletion(FlushCompletion completion);

  // States and aggregation.
  std::optional<Array> fetchReportingStates() const;
  void updateReportingStates();
  void updateUserInfoForBackends();
  void receivedUserInfo(std::shared_ptr<const Dictionary> userInfo);
  void aggregateMessage(const Message& message, double timestamp);
  void sendToAggregator(std::optional<Dictionary> message, double timestamp, std::uint16_t category,
                        std::uint16_t type, std::optional<Dictionary> payload) const;

  // Uploads.
  void uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                         SuccessReply completion);

  // Null before there are any. What is shared is replaced as a whole and never changed.
  std::shared_ptr<const BackendTable> backends() const;
  // Gives the old ones.
  std::shared_ptr<const BackendTable> exchangeBackends(std::shared_ptr<const BackendTable> table);
  // Null where the table, which may be null itself, has none under the key.
  static const CorvidBackend* backendNamed(std::string_view key, const BackendTable* table);
  std::shared_ptr<const Dictionary> sharedSessionInfo() const;

  // Constant after construction.
  const std::shared_ptr<CorviddSessionDelegate> _sessionDelegate;
  const std::shared_ptr<Connection> _connection;
  const BackendSetCreator _createBackends;
  char _deviceid[uniqueDeviceIDCapacity] = {};  // outlives the backends, which point to it

  std::atomic<std::uint32_t> _sessionID{0};
  std::atomic<bool> _hasAggregator{false};

  mutable Mutex _lock;
  std::shared_ptr<const Dictionary> _sessionInfo GUARDED_BY(_lock);
  std::shared_ptr<const Dictionary> _userInfo GUARDED_BY(_lock);
  Array _frameworks GUARDED_BY(_lock);
  std::shared_ptr<const BackendTable> _backends GUARDED_BY(_lock);
  // What works for the session at intervals, kept until its end. Nothing does yet.
  std::vector<std::shared_ptr<void>> _periodicServices GUARDED_BY(_lock);
  std::string _sessionIDString GUARDED_BY(_lock);
  std::optional<std::string> _storebagVersion GUARDED_BY(_lock);
};

}  // namespace corvid
