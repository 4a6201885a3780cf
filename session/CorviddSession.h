// One client's session: its calls, its backends, its place in a chain of sessions.
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
#include "base/LogFields.h"
#include "base/Mutex.h"
#include "base/Value.h"
#include "protocol/ClientSessionInterface.h"
#include "protocol/Connection.h"
#include "session/CorviddSessionDelegate.h"
#include "session/SessionBackends.h"

namespace corvid {

// How a storebag section becomes backends; createBackends in the daemon.
using BackendSetCreator = std::function<std::optional<BackendTable>(
    const Dictionary* section, const Dictionary* sessionInfo, const SharedDictionary& userInfo,
    std::optional<std::string> udid)>;

// Threads   The client's calls run on the connection's thread, and the destructor's farewell too,
//           save where another session of the chain is delivering to this one as its client goes:
//           then it runs on that one's. The agent reads properties and calls
//           updateCombinedSessionID, syncReportingStates and shutdownSessionAggregation from other
//           sessions' threads, with its own mutex held.
//           Flush completions come on any thread and never touch the session. `_mutex` guards the
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
  // What lets a client's sessions into chains with those of other users.
  static constexpr std::string_view chainsEntitlement = "com.halcyon.private.corvidd.chains";

  static std::shared_ptr<CorviddSession> initWithSessionDelegate(
      std::shared_ptr<CorviddSessionDelegate> delegate, std::shared_ptr<Connection> connection,
      BackendSetCreator creator = createBackends);
  ~CorviddSession() override;  // sends the end message, flushes, shuts aggregation down, cleans up

  // ClientSessionInterface
  std::shared_ptr<const LogSubject> logSubject() const override { return _logSubject; }
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
                                  std::optional<Dictionary> payload, ResultReply reply) override;
  void wantReasons() override { _wantsReasons = true; }
  StatesReport statesReport() const override;

  // Sends one message through backends that live for it alone: no aggregation, no flush, no start
  // or end message. Any thread. Only user info and payload may be null.
  // `mark` is the ledger's. False where there was not one backend.
  static bool sendMessageWithSessionInfo(const Dictionary* sessionInfo,
                                         const SharedDictionary& userInfo,
                                         const Dictionary* storebag, std::uint16_t category,
                                         std::uint16_t type, const Dictionary* payload,
                                         const BackendSetCreator& creator = createBackends,
                                         EventMark mark = {});

  // Properties that the agent reads.
  std::uint32_t sessionID() const { return _sessionID.load(std::memory_order_relaxed); }
  void setSessionID(std::uint32_t sessionID) { _sessionID = sessionID; }
  const std::string& sessionIDString() const { return _sessionIDString; }
  std::optional<std::string> storebagVersion() const;
  void setStorebagVersion(std::optional<std::string> version);
  // Null where there is none. What is shared is replaced as a whole and never changed.
  std::shared_ptr<const Dictionary> userInfo() const;
  std::shared_ptr<const Dictionary> sessionInfo() const;
  // Null before there are any.
  std::shared_ptr<const SessionBackends> backends() const;
  bool hasAggregator() const { return _hasAggregator.load(std::memory_order_relaxed); }
  void setHasAggregator(bool hasAggregator) { _hasAggregator = hasAggregator; }
  // The client's, by number.
  std::uint32_t user() const { return _user; }
  // Whether the two may be of one chain: their clients are of one user, or both are entitled to
  // chains across users.
  bool mayMeet(const CorviddSession& other) const;
  // The client's process.
  const Connection::Peer& peer() const { return _peer; }
  // Has the states computed anew, as a change of its user info would, on the connection's thread.
  void computeStatesLater() const;
  // Its place among the accepted, from 1.
  std::uint64_t number() const { return _number; }
  // Why it has no backends; nothing where it has.
  std::optional<Reason> silence() const;
  // The session above it in its chain, by number; 0: none.
  std::uint64_t parentNumber() const { return _parentNumber.load(std::memory_order_relaxed); }
  // For log lines.
  std::string description() const;
  // Level in the chain, 0 without backends.
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

  CorviddSession(std::shared_ptr<CorviddSessionDelegate> delegate,
                 std::shared_ptr<Connection> connection, BackendSetCreator creator);

  // Life cycle.
  std::shared_ptr<const SessionBackends> createBackendsWithStorebag(
      const Dictionary& storebag) const;
  void sendStartMessage();
  void sayFarewell();

  // Messages.
  void internalSendMessage(const Dictionary& payload, SessionMessageType respCode);
  MessageAnswer dispatch(const SessionMessage& message);
  // The same with what is known of why nobody took it.
  MessageAnswer answerTo(const Ledger::Offer& offer, std::optional<std::string> text) const;
  void aggregateMessage(const SessionMessage& message, double timestamp);
  void sendToAggregator(std::optional<Dictionary> message, double timestamp, std::uint16_t category,
                        std::uint16_t type, std::optional<Dictionary> payload) const;
  void internalFlushMessagesWithCompletion(FlushCompletion completion);

  // States and chain.
  std::optional<Array> fetchReportingStates() const;
  void updateReportingStates();
  void updateUserInfoForBackends();
  void receivedUserInfo(std::shared_ptr<const Dictionary> userInfo);
  void updateSessionWithDefaultSessionInfo();

  // It has no backends, for this reason.
  void becomeSilent(Reason reason);
  // The client has said who it is.
  void nameInLog();

  // Constant after construction.
  const std::shared_ptr<CorviddSessionDelegate> _sessionDelegate;
  const std::shared_ptr<Connection> _connection;
  Platform& _platform;
  const std::shared_ptr<Ledger> _ledger;
  const std::uint64_t _number;
  const std::shared_ptr<LogSubject> _logSubject;
  const Connection::Peer _peer;
  const BackendSetCreator _createBackends;
  const std::uint32_t _user;    // of the client
  const bool _meetsOtherUsers;  // as its client is entitled to
  const std::string _deviceid;
  const std::string _sessionIDString;

  std::atomic<std::uint32_t> _sessionID{0};
  std::atomic<bool> _hasAggregator{false};
  std::atomic<bool> _wantsReasons{false};
  std::atomic<Reason> _silence{Reason::noSessionInfo};  // while there are no backends
  std::atomic<std::uint64_t> _parentNumber{0};

  mutable Mutex _mutex;
  std::shared_ptr<const Dictionary> _sessionInfo GUARDED_BY(_mutex);
  std::shared_ptr<const Dictionary> _userInfo GUARDED_BY(_mutex);
  Array _frameworks GUARDED_BY(_mutex);
  std::shared_ptr<const SessionBackends> _backends GUARDED_BY(_mutex);
  // What works for the session at intervals, kept until its end. Nothing does yet.
  std::vector<std::shared_ptr<void>> _periodicServices GUARDED_BY(_mutex);
  std::optional<std::string> _storebagVersion GUARDED_BY(_mutex);
};

}  // namespace corvid
