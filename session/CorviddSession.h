// One client's session: configuration, dispatch, flushing, reporting states, aggregation.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "backends/BackendSet.h"
#include "config/DeviceInformation.h"
#include "platform/base/Mutex.h"
#include "platform/base/TimeValue.h"
#include "platform/base/Value.h"
#include "platform/ipc/Connection.h"
#include "protocol/ClientSessionInterface.h"
#include "session/CorviddSessionDelegate.h"

namespace corvid {

// Threads   The client's calls and the destructor's farewell run on the connection's thread. The
//           agent reads properties and calls updateCombinedSessionID, syncReportingStates,
//           shutdownSessionAggregation and sendToAggregator from other sessions' threads, with its
//           own mutex held. `_lock` guards the fields and is never held across a call to the agent,
//           a backend or the client; the agent's mutex is always taken before it.
// Ownership Held by the agent's list and as the connection's exported object; holds agent and
//           connection. Ends when the last goes, after the connection's invalidation.
class CorviddSession final : public ClientSessionInterface,
                             public std::enable_shared_from_this<CorviddSession> {
 public:
  static std::shared_ptr<CorviddSession> initWithSessionDelegate(
      std::shared_ptr<CorviddSessionDelegate> delegate, std::shared_ptr<Connection> connection);
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

  // Properties that the agent reads.
  std::uint32_t sessionID() const;
  void setSessionID(std::uint32_t sessionID);
  std::string sessionIDString() const;
  void setSessionIDString(std::string sessionIDString);
  std::optional<std::string> storebagVersion() const;
  void setStorebagVersion(std::optional<std::string> version);
  std::optional<Dictionary> userInfo() const;
  Dictionary sessionInfo() const;
  bool hasAggregator() const;
  void setHasAggregator(bool hasAggregator);
  // For log lines.
  std::string description() const;
  // Level in the chain: that of the backend httpPost2, else of httpPost, else 0.
  std::int32_t getSessionHierarchy() const;

  // Called by the agent when the chain changes, with its mutex held.
  void updateCombinedSessionID();
  void syncReportingStates();
  void shutdownSessionAggregation();

 private:
  CorviddSession(std::shared_ptr<CorviddSessionDelegate> delegate,
                 std::shared_ptr<Connection> connection);

  // Life cycle.
  void createBackendsWithStorebag(const Dictionary& storebag);
  void updateSessionWithDefaultSessionInfo();
  void sendStartMessage();

  // Dispatch and flush.
  std::optional<std::string> sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                                                     std::optional<Dictionary> payload);
  std::optional<std::string> sendMessageWithDictionary(const Dictionary& message);
  void internalSendMessage(std::optional<Dictionary> payload, const TimeValue& timestamp,
                           std::uint16_t method, std::uint16_t respCode);
  void internalFlushMessagesWithCompletion(FlushCompletion completion);
  static void sendSingleMessage(const Dictionary* sessionInfo, const Dictionary* userInfo,
                                const Dictionary* storebag, std::uint16_t category,
                                std::uint16_t type, const Dictionary* payload);

  // States and aggregation.
  std::optional<Array> fetchReportingStates() const;
  void updateReportingStates();
  void updateUserInfoForBackends();
  void receivedUserInfo(std::optional<Dictionary> userInfo);
  void aggregateMessage(const Dictionary& message, double timestamp, std::uint16_t category,
                        std::uint16_t type, const Dictionary* payload);
  void sendToAggregator(std::optional<Dictionary> message, double timestamp, std::uint16_t category,
                        std::uint16_t type, std::optional<Dictionary> payload);

  // Uploads.
  void uploadFileWithURL(const std::string& fileURL, const std::string& extensionToken,
                         SuccessReply completion);

  // A copy of the table, so that no lock is held while backends work; nothing before creation.
  std::optional<BackendTable> backends() const;

  // Constant after construction.
  const std::shared_ptr<CorviddSessionDelegate> _sessionDelegate;
  const std::shared_ptr<Connection> _connection;
  char _deviceid[uniqueDeviceIDCapacity] = {};

  mutable Mutex _lock;
  std::uint32_t _sessionID GUARDED_BY(_lock) = 0;
  Dictionary _sessionInfo GUARDED_BY(_lock);
  std::optional<Dictionary> _userInfo GUARDED_BY(_lock);
  Array _frameworks GUARDED_BY(_lock);
  std::optional<BackendTable> _backends GUARDED_BY(_lock);
  std::string _sessionIDString GUARDED_BY(_lock);
  std::optional<std::string> _storebagVersion GUARDED_BY(_lock);
  bool _hasAggregator GUARDED_BY(_lock) = false;
};

}  // namespace corvid
