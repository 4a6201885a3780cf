// A listener on a socket in a temporary folder, with sessions that record what they are asked.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/ExtensionTokens.h"
#include "protocol/Limits.h"
#include "rpc/IPCListener.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/FakeServices.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {

inline constexpr std::size_t mebibyte = std::size_t{1} << 20;

// Answers each call as the test says; by default as a session without backends would.
class RecordingSession : public ClientSessionInterface {
 public:
  struct Call {
    std::string name;
    Dictionary dictionary{};  // session info, message
    std::optional<Dictionary> userInfo{};
    std::optional<Dictionary> payload{};
    Array array{};
    std::string text{};
    std::string token{};
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    bool flag = false;
    bool replyWanted = false;
    std::thread::id thread = std::this_thread::get_id();
  };

  ~RecordingSession() override {
    if (onDestruction) onDestruction();
  }

  std::shared_ptr<const LogSubject> logSubject() const override { return subject; }
  void setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                      Array frameworksToCheck, bool hasAggregationBlock) override {
    Call call{"setSessionInfo"};
    call.dictionary = std::move(sessionInfo), call.userInfo = std::move(userInfo);
    call.array = std::move(frameworksToCheck), call.flag = hasAggregationBlock;
    record(std::move(call));
    if (onSetSessionInfo) onSetSessionInfo();
  }
  void startConfigWithCompletionHandler(StatesReply reply) override {
    Call call{"startConfig"};
    call.replyWanted = static_cast<bool>(reply);
    record(std::move(call));
    reply(states);
  }
  void fetchStatesWithUserInfo(std::optional<Dictionary> userInfo, StatesReply reply) override {
    Call call{"fetchStates"};
    call.userInfo = std::move(userInfo), call.replyWanted = static_cast<bool>(reply);
    record(std::move(call));
    reply(states);
  }
  void fetchDisplayURL(Reply<std::string> reply) override {
    record({"fetchDisplayURL"});
    if (onFetchDisplayURL)
      onFetchDisplayURL(std::move(reply));
    else
      reply("URL not available");
  }
  void sendMessageWithCategory(std::uint16_t category, std::uint16_t type,
                               std::optional<Dictionary> payload, ResultReply reply) override {
    Call call{"sendMessage"};
    call.category = category, call.type = type, call.payload = std::move(payload);
    call.replyWanted = static_cast<bool>(reply);
    record(std::move(call));
    answer(category, std::move(reply));
  }
  void sendMessageWithDictionary(Dictionary message, ResultReply reply) override {
    Call call{"sendMessageWithDictionary"};
    call.dictionary = std::move(message), call.replyWanted = static_cast<bool>(reply);
    record(std::move(call));
    answer(0, std::move(reply));
  }
  void flushMessagesWithCompletion(FlushReply completion) override {
    Call call{"flush"};
    call.replyWanted = static_cast<bool>(completion);
    record(std::move(call));
    if (onFlush)
      onFlush(std::move(completion));
    else
      completion(std::nullopt, CorvidError::of(-1, "No backends available to send message"));
  }
  void finishSessionWithReply(ResultReply reply) override {
    record({"finish"});
    reply(std::nullopt);
  }
  void uploadFileAtPath(std::string fileURL, std::string extensionToken,
                        SuccessReply completion) override {
    Call call{"uploadFile"};
    call.text = std::move(fileURL), call.token = extensionToken;
    record(std::move(call));
    if (onUpload) onUpload(extensionToken);
    completion(uploadSucceeds);
  }
  void uploadLogData(Array logData, LogDataReply completion) override {
    Call call{"uploadLogData"};
    call.array = std::move(logData);
    record(std::move(call));
    completion(false, CorvidError::of(7, "no log data"));
  }
  void sendMessageWithSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                  std::uint16_t category, std::uint16_t type,
                                  std::optional<Dictionary> payload, ResultReply reply) override {
    Call call{"sendSingleMessage"};
    call.dictionary = std::move(sessionInfo), call.userInfo = std::move(userInfo);
    call.category = category, call.type = type, call.payload = std::move(payload);
    const bool complete = call.dictionary.contains("ClientType");
    record(std::move(call));
    if (complete) reply("finished");
  }

  void wantReasons() override { reasonsWanted = true; }
  StatesReport statesReport() const override {
    StatesReport copy;
    _notice.change([&] { copy = _report; });
    return copy;
  }
  void report(StatesReport report) {
    _notice.change([&] { _report = std::move(report); });
  }

  std::vector<Call> calls() {
    std::vector<Call> copy;
    _notice.change([&] { copy = _calls; });
    return copy;
  }
  bool awaitCalls(std::size_t count) {
    return _notice.await([&] { return _calls.size() >= count; });
  }

  // Set before the first call.
  std::shared_ptr<const LogSubject> subject;
  std::optional<Array> states;
  std::atomic<bool> reasonsWanted{false};
  bool uploadSucceeds = true;
  std::function<void(const std::string& extensionToken)> onUpload;
  std::function<void()> onSetSessionInfo;
  std::function<void(std::uint16_t, ResultReply)> onMessage;
  std::function<void(FlushReply)> onFlush;
  std::function<void(Reply<std::string>)> onFetchDisplayURL;
  std::function<void()> onDestruction;

 private:
  void record(Call call) {
    _notice.change([&] { _calls.push_back(std::move(call)); });
  }
  void answer(std::uint16_t category, ResultReply reply) {
    if (onMessage)
      onMessage(category, std::move(reply));
    else
      reply("sent " + std::to_string(category));
  }

  mutable Notice _notice;
  std::vector<Call> _calls;
  StatesReport _report{.reason = Reason::notConfigured};
};

// Accepts everybody and gives each connection a session.
class RecordingDelegate final : public ListenerDelegate {
 public:
  struct Accepted {
    std::shared_ptr<Connection> connection;
    std::shared_ptr<RecordingSession> session;
    bool invalidated = false;
  };

  bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) override {
    if (refuse) return false;
    auto session = std::make_shared<RecordingSession>();
    if (onSession) onSession(*session, connection);
    std::size_t index = 0;
    notice.change([&] {
      index = accepted.size();
      accepted.push_back({connection, keepSessions ? session : nullptr});
    });
    connection->setExportedObject(session);
    connection->setInvalidationHandler([this, index] {
      notice.change([&] {
        accepted[index].invalidated = true;
        accepted[index].connection = nullptr;
      });
    });
    session = nullptr;
    connection->resume();
    return true;
  }

  // The connection with this index, once it is there.
  Accepted at(std::size_t index) {
    Accepted result;
    EXPECT_TRUE(notice.await([&] { return accepted.size() > index; }));
    notice.change([&] { result = accepted.at(index); });
    return result;
  }
  bool awaitInvalidated(std::size_t index) {
    return notice.await([&] { return accepted.size() > index && accepted[index].invalidated; });
  }

  // Set before the listener resumes.
  std::function<void(RecordingSession&, const std::shared_ptr<Connection>&)> onSession;
  std::atomic<bool> refuse{false};
  bool keepSessions = true;

  Notice notice;
  std::vector<Accepted> accepted;
};

class ServiceFixture : public testing::Test {
 protected:
  // Tests set up `delegate`, `entitlements` and `changes` first.
  void start() {
    auto bound = IPCListener::serving(ServiceSocket::bind(path),
                                      [this](int) { return entitlements; }, {tokens, budgets});
    ASSERT_TRUE(bound) << bound.failure().message;
    listener = std::move(bound).value();
    listener->resume(delegate, {}, changes);
  }
  void stop() { listener = nullptr; }
  void TearDown() override { stop(); }

  CapturedLog log;
  ExtensionTokens tokens{std::make_shared<FakeRandom>(), limits::uploadBytesUnderWay};
  Budgets budgets;
  ScratchFolder folder;
  std::string path = folder.path() + "/run/corvidd/com.halcyon.corvidd";
  PeerEntitlements entitlements = [] { return Dictionary{{"com.halcyon.private.corvidd", true}}; };
  EntitlementChanges changes;
  std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
  std::unique_ptr<IPCListener> listener;
};

}  // namespace corvid
