// Which events leave at once, which wait, and which are lost.
#include "platform/data/JSON.h"
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct BatchingTest : PostBackendFixture {
  BatchingTest() { sessionInfo.set("BatchEvent", true); }

  std::shared_ptr<HTTPSPostBackend> makeInState(BackendState state,
                                                const Dictionary& entry = openEntry()) {
    auto backend = makeFor(entry);
    backend->setState(state);
    platform.log.clear();
    return backend;
  }
  // The message of a request as the log shows it.
  static std::string prettyMessageOf(const HTTPRequest& request) {
    return indentedJSON(messageOf(request));
  }
  std::size_t eventsInBatch(HTTPSPostBackend& backend) {
    const std::size_t before = requests().size();
    backend.setState(BackendState::sending);
    backend.flushMessagesWithCompletion(nullptr);
    return requests().size() == before ? 0 : eventsOf(requests().back()).size();
  }
};

using Lines = std::vector<std::string>;

TEST_F(BatchingTest, ADisabledBackendDropsTheEventWithoutATrace) {
  const auto backend = makeInState(BackendState::disabled);
  EXPECT_EQ(send(*backend, {}, 3), std::nullopt);
  EXPECT_EQ(backend->sendMessage(nullptr, {}, 0, 1, MessageFlag{0}), std::nullopt)
      << "a stop event too";
  EXPECT_TRUE(platform.log.lines().empty());
  EXPECT_EQ(eventsInBatch(*backend), 0u);
}

TEST_F(BatchingTest, AnOrdinaryEventOfABatchingBackendWaits) {
  const auto backend = makeInState(BackendState::sending);
  EXPECT_EQ(send(*backend, {{"x", 1}}), std::nullopt);
  EXPECT_EQ(platform.log.texts(LogLevel::debug),
            (Lines{"HTTPSPostBackend(sendMessage): realtime is 0",
                   "HTTPSPostBackend(sendMessage): Batching 2, 1, 1"}));
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(eventsInBatch(*backend), 1u);
}

TEST_F(BatchingTest, WithoutBatchingAnEventLeavesAtOnce) {
  sessionInfo.set("BatchEvent", false);
  const auto backend = makeInState(BackendState::sending);
  const auto text = send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(requests()[0].url, batchURL) << "not realtime";
  EXPECT_EQ(text, prettyMessageOf(requests()[0]));
  EXPECT_EQ(linesOf("HTTPSPostBackend(sendMessage)"),
            (Lines{"HTTPSPostBackend(sendMessage): realtime is 0",
                   "HTTPSPostBackend(sendMessage): Sending 2, 0, 1"}));
}

TEST_F(BatchingTest, FlagsOneAndThreeAreRealtime) {
  const auto backend = makeInState(BackendState::sending);
  for (const int flag : {1, 3}) {
    send(*backend, {{"x", flag}}, flag);
    EXPECT_EQ(requests().back().url, realtimeURL) << flag;
  }
  EXPECT_EQ(linesOf("HTTPSPostBackend(sendMessage)"),
            (Lines{"HTTPSPostBackend(sendMessage): realtime is 1",
                   "HTTPSPostBackend(sendMessage): Sending 2, 1, 1",
                   "HTTPSPostBackend(sendMessage): realtime is 1",
                   "HTTPSPostBackend(sendMessage): Sending 2, 1, 1"}));
  for (const int flag : {0, 2, 4, 5, -1}) send(*backend, {}, flag);
  EXPECT_EQ(requests().size(), 2u) << "every other flag waits";
}

TEST_F(BatchingTest, ARealtimeEventPostsTheBatchFirst) {
  const auto backend = makeInState(BackendState::sending);
  send(*backend, {{"x", 1}});
  send(*backend, {{"x", 2}});
  platform.log.clear();
  const auto text = send(*backend, {{"x", 3}}, 1);
  ASSERT_EQ(requests().size(), 2u);
  EXPECT_EQ(requests()[0].url, batchURL);
  EXPECT_EQ(requests()[1].url, realtimeURL);
  EXPECT_EQ(posted("x"), (Lines{"1", "2", "3"}));
  EXPECT_EQ(text, "Flushed events:\n" + prettyMessageOf(requests()[0]) + "\nStandalone event:\n" +
                      prettyMessageOf(requests()[1]));
  EXPECT_EQ(linesOf("HTTPSPostBackend("),
            (Lines{"HTTPSPostBackend(sendMessage): realtime is 1",
                   "HTTPSPostBackend(sendMessage): Got a realtime event and some events have "
                   "already been batched. Forcing Flush here to keep events in order.",
                   "HTTPSPostBackend(flushMessagesWithCompletion): called",
                   "HTTPSPostBackend(sendMessage): Sending 2, 1, 1"}));
}

TEST_F(BatchingTest, TheStateIsLoggedAsTheFlushLeftIt) {
  const auto backend = makeInState(BackendState::sending);
  send(*backend, {{"x", 1}});
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(503); });
  send(*backend, {{"x", 2}}, 1);
  EXPECT_EQ(linesOf("HTTPSPostBackend(sendMessage): Sending"),
            Lines{"HTTPSPostBackend(sendMessage): Sending 1, 1, 1"});
  EXPECT_EQ(posted("x"), (Lines{"1", "2"})) << "decided before";
}

TEST_F(BatchingTest, WithoutLoggingARealtimeEventOverABatchAnswersNothing) {
  const auto backend = makeInState(BackendState::sending, openEntryWith("override_dnu", 1));
  send(*backend, {{"x", 1}});
  EXPECT_EQ(send(*backend, {{"x", 2}}, 1), std::nullopt);
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(BatchingTest, AnOrdinaryEventThatLeavesAtOnceLeavesTheBatch) {
  Dictionary first = openEntry();
  first.set("client", "player");
  const auto backend = makeFor(Array{first, openEntryWith("expedite", 1)});
  send(*backend, {{"x", 1}});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  send(*backend, {{"x", 2}});
  EXPECT_EQ(posted("x"), Lines{"2"});
  EXPECT_EQ(eventsInBatch(*backend), 1u);
}

TEST_F(BatchingTest, AWaitingBackendBatchesWhateverTheFlag) {
  const auto backend = makeInState(BackendState::waiting);
  for (const int flag : {0, 1, 2, 3}) send(*backend, {}, flag);
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(linesOf("HTTPSPostBackend(sendMessage): Batching"),
            Lines(4, "HTTPSPostBackend(sendMessage): Batching 0, 1, 1"));
  EXPECT_EQ(backend->state(), BackendState::waiting);
  EXPECT_EQ(eventsInBatch(*backend), 4u);
}

TEST_F(BatchingTest, AHeldBackendBatchesUntilAFlagLiftsIt) {
  const auto backend = makeInState(BackendState::held);
  send(*backend, {{"x", 1}}, 0);
  send(*backend, {{"x", 2}}, 1);
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(backend->state(), BackendState::held);
  send(*backend, {{"x", 3}}, 2);
  EXPECT_EQ(backend->state(), BackendState::sending) << "lifted, but not realtime";
  EXPECT_TRUE(requests().empty());
  backend->setState(BackendState::held);
  send(*backend, {{"x", 4}}, 3);
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(posted("x"), (Lines{"1", "2", "3", "4"})) << "the batch, then the event";
}

TEST_F(BatchingTest, ALiftedBackendWithoutAnAddressSaysSo) {
  const auto backend = makeInState(BackendState::held, {});
  send(*backend, {{"x", 1}}, 2);
  EXPECT_EQ(backend->standing(),
            (CorvidBackend::Standing{BackendState::sending, Reason::noAddress}));
}

TEST_F(BatchingTest, ABackendThatSendsAsItsParentDoesSaysWhetherItHasAnAddressItself) {
  using Standing = CorvidBackend::Standing;
  const Standing reports{BackendState::sending, Reason::reporting};
  const Standing lacksAddress{BackendState::sending, Reason::noAddress};
  const auto lacking = makeInState(BackendState::waiting, {});
  lacking->takeOver(reports);
  EXPECT_EQ(lacking->standing(), lacksAddress);
  const auto posting = makeInState(BackendState::waiting);
  posting->takeOver(lacksAddress);
  EXPECT_EQ(posting->standing(), reports);
  const Standing sampledOut{BackendState::disabled, Reason::sampledOut};
  posting->takeOver(sampledOut);
  EXPECT_EQ(posting->standing(), sampledOut);
}

TEST_F(BatchingTest, WhoeverObservesTheStateHearsOfTheLift) {
  const auto backend = makeInState(BackendState::held);
  int changes = 0;
  backend->setStandingObserver([&] { ++changes; });
  send(*backend, {{"x", 1}}, 0);
  EXPECT_EQ(changes, 0);
  send(*backend, {{"x", 2}}, 2);
  EXPECT_EQ(changes, 1);
  send(*backend, {{"x", 3}}, 2);
  EXPECT_EQ(changes, 1) << "it sends already";
}

TEST_F(BatchingTest, AFlagLiftsNoOtherState) {
  const auto backend = makeInState(BackendState::waiting);
  send(*backend, {}, 2);
  EXPECT_EQ(backend->state(), BackendState::waiting);
}

TEST_F(BatchingTest, WithoutRequiredUserInfoEvenARealtimeEventWaits) {
  const auto backend = makeInState(BackendState::sending);
  backend->setUserInfoDict(nullptr);
  send(*backend, {{"x", 1}}, 1);
  EXPECT_TRUE(requests().empty());
  backend->setUserInfoDict(shared(*userInfo));
  send(*backend, {{"x", 2}}, 1);
  EXPECT_EQ(posted("x"), (Lines{"1", "2"}));
}

TEST_F(BatchingTest, AMessageThatCannotBeWrittenIsNotPostedAndAnswersNothing) {
  const auto backend = makeInState(BackendState::sending);
  send(*backend, {{"x", 1}});
  EXPECT_EQ(send(*backend, {{"bad", "\xFF"}}, 1), std::nullopt);
  EXPECT_EQ(posted("x"), Lines{"1"}) << "the batch was posted; its text is lost too";
  EXPECT_EQ(requests().size(), 1u);
}

// Thresholds

const std::string thresholdLine =
    "HTTPSPostBackend(batchEvent): Flushing all batched events as we reached event threshold for "
    "method ";

TEST_F(BatchingTest, TheEventPastTheThresholdFlushesTheOthersAndIsLost) {
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", 2));
  for (int i = 1; i <= 3; ++i) EXPECT_EQ(send(*backend, {{"x", i}}), std::nullopt);
  EXPECT_TRUE(requests().empty());
  platform.log.clear();
  const auto text = send(*backend, {{"x", 4}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(posted("x"), (Lines{"1", "2", "3"}));
  EXPECT_EQ(text, prettyMessageOf(requests()[0]));
  EXPECT_EQ(linesOf("HTTPSPostBackend("),
            (Lines{"HTTPSPostBackend(sendMessage): realtime is 0",
                   "HTTPSPostBackend(sendMessage): Batching 2, 1, 1", thresholdLine + "3",
                   "HTTPSPostBackend(flushMessagesWithCompletion): called"}));
  // Its count survives: two more fit, the third flushes them.
  for (int i = 5; i <= 7; ++i) send(*backend, {{"x", i}});
  EXPECT_EQ(posted("x"), (Lines{"1", "2", "3", "5", "6"}));
  EXPECT_EQ(eventsInBatch(*backend), 0u);
}

TEST_F(BatchingTest, TheThresholdCountsEachMethodAlone) {
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", 1));
  for (int i = 1; i <= 2; ++i) send(*backend, {{"x", i}}, 0, 3);
  for (int i = 3; i <= 4; ++i) send(*backend, {{"x", i}}, 0, 5);
  EXPECT_TRUE(requests().empty());
  send(*backend, {{"x", 5}}, 0, 5);
  EXPECT_EQ(posted("x"), (Lines{"1", "2", "3", "4"})) << "the whole batch, all methods";
  EXPECT_EQ(linesOf(thresholdLine), Lines{thresholdLine + "5"});
}

TEST_F(BatchingTest, TheThresholdCountsTheMethodThatTheUserInfoLeaves) {
  userInfo->set("_method", "9 lives");
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", 0));
  send(*backend, {{"x", 1}}, 0, 3);
  send(*backend, {{"x", 2}}, 0, 5);
  EXPECT_EQ(posted("x"), Lines{"1"});
  EXPECT_EQ(linesOf(thresholdLine), Lines{thresholdLine + "9"});
  platform.log.clear();
  userInfo->set("_method", Array{9});
  backend->setUserInfoDict(shared(*userInfo));
  send(*backend, {{"x", 3}}, 0, 3);
  send(*backend, {{"x", 4}}, 0, 5);
  EXPECT_EQ(linesOf(thresholdLine), Lines{thresholdLine + "0"});
}

TEST_F(BatchingTest, ByDefaultTheFiftyFirstEventOfAMethodFlushes) {
  const auto backend = make({{"clients", Array{}}});
  backend->setState(BackendState::sending);
  backend->setPostURL(batchURL);
  for (int i = 1; i <= 50; ++i) send(*backend, {{"x", i}});
  EXPECT_TRUE(requests().empty());
  send(*backend, {{"x", 51}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(eventsOf(requests()[0]).size(), 50u);
}

TEST_F(BatchingTest, WithoutAnEventThresholdTheSecondEventOfAMethodFlushes) {
  const auto backend = makeInState(BackendState::sending, openEntryWithout("event_threshold"));
  send(*backend, {{"x", 1}});
  send(*backend, {{"x", 2}});
  EXPECT_EQ(posted("x"), Lines{"1"});
}

TEST_F(BatchingTest, ANegativeThresholdLosesEveryEvent) {
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", -1));
  send(*backend, {{"x", 1}});
  send(*backend, {{"x", 2}});
  ASSERT_EQ(requests().size(), 2u) << "an empty batch is a batch";
  for (const HTTPRequest& request : requests()) EXPECT_TRUE(eventsOf(request).empty());
}

TEST_F(BatchingTest, OutsideSendingTheThresholdDropsTheBatchAndKeepsOtherCounts) {
  const auto backend = makeInState(BackendState::held, openEntryWith("event_threshold", 0));
  send(*backend, {{"x", 1}}, 0, 3);
  send(*backend, {{"x", 2}}, 0, 5);
  EXPECT_EQ(send(*backend, {{"x", 3}}, 0, 3), std::nullopt) << "drops all three";
  EXPECT_TRUE(requests().empty());
  backend->setState(BackendState::sending);
  send(*backend, {{"x", 4}}, 0, 5);
  ASSERT_EQ(requests().size(), 1u) << "method 5 was still counted";
  EXPECT_TRUE(eventsOf(requests()[0]).empty());
}

TEST_F(BatchingTest, WhereAFlushRefusesTheEventJoinsTheKeptBatch) {
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", 0));
  send(*backend, {{"x", 1}});
  backend->setUserInfoDict(nullptr);
  send(*backend, {{"x", 2}});
  EXPECT_TRUE(requests().empty());
  backend->setUserInfoDict(shared(*userInfo));
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("x"), (Lines{"1", "2"}));
}

// Correlation

TEST_F(BatchingTest, ANewCombinedIDRewritesTheBatchToo) {
  const auto backend = makeInState(BackendState::sending);
  send(*backend, {{"x", 1}});
  backend->setCorrelatedSessionID("A.B.C");
  EXPECT_EQ(backend->combinedSessionIDString(), "A.B.C");
  send(*backend, {{"x", 2}});
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("_sessionID"), (Lines{"A.B.C", "A.B.C"}));
}

TEST_F(BatchingTest, ANewCombinedIDReplacesANumberInTheBatchToo) {
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  sessionInfo.set("ClientType", 7);
  const auto backend = makeInState(BackendState::sending);
  send(*backend, {{"x", 1}});
  backend->setCorrelatedSessionID("A.B.C");
  send(*backend, {{"x", 2}});
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("_sessionID"), (Lines{"A.B.C", "99"}));
}

TEST_F(BatchingTest, WithoutABatchANewCombinedIDIsJustKept) {
  const auto backend = makeInState(BackendState::sending);
  backend->setCorrelatedSessionID("A.B.C");
  EXPECT_EQ(eventsInBatch(*backend), 0u);
  EXPECT_EQ(backend->combinedSessionIDString(), "A.B.C");
}

// Many methods, so that no method's own threshold comes first.
struct FullBatchTest : BatchingTest {
  static constexpr std::size_t textBytes = HeldRecords::byteLimit / 4;

  void sendLarge(HTTPSPostBackend& backend, int number) {
    send(backend, {{"n", number}, {"text", std::string(textBytes, 'x')}}, 0,
         static_cast<std::uint16_t>(number));
  }
  std::vector<std::string> errors() const { return platform.log.texts(LogLevel::error); }
};

TEST_F(FullBatchTest, IsFlushedBeforeItsTimeAndLosesNothing) {
  const auto backend = makeInState(BackendState::sending);
  for (int i = 1; i <= 7; ++i) sendLarge(*backend, i);
  EXPECT_EQ(requests().size(), 2u);
  EXPECT_EQ(linesOf("HTTPSPostBackend(batchEvent)"),
            Lines(2,
                  "HTTPSPostBackend(batchEvent): Flushing all batched events as the batch is "
                  "full"));
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("n"), (Lines{"1", "2", "3", "4", "5", "6", "7"}));
  EXPECT_TRUE(errors().empty());
}

TEST_F(FullBatchTest, DropsItsOldestEventsWhileItMayNotBeFlushedAndSaysSoOnce) {
  const auto backend = makeInState(BackendState::waiting);
  for (int i = 1; i <= 7; ++i) sendLarge(*backend, i);
  EXPECT_EQ(errors(),
            Lines{"HTTPSPostBackend(batchEvent): backend httpPost holds 3 events and may not flush "
                  "them; the oldest are dropped until it may"});
  backend->setState(BackendState::sending);
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("n"), (Lines{"5", "6", "7"}));
  ASSERT_EQ(errors().size(), 2u);
  EXPECT_EQ(errors()[1],
            "HTTPSPostBackend(batchEvent): backend httpPost dropped 4 events of a full batch");
}

TEST_F(FullBatchTest, CountsNoMoreMethodsThanEventsCanHaveWhateverTheUserInfoNames) {
  const auto backend = makeInState(BackendState::held, openEntryWith("event_threshold", 0));
  const auto sendWithMethod = [&](int method) {
    backend->setUserInfoDict(shared(Dictionary{{"_clientName", "player"}, {"_method", method}}));
    send(*backend, {});
  };
  for (int i = 0; i <= static_cast<int>(MethodCounts::limit); ++i) sendWithMethod(100'000 + i);
  platform.log.clear();
  sendWithMethod(100'000);
  EXPECT_EQ(linesOf(thresholdLine), Lines{}) << "its count went with the others";
  sendWithMethod(100'000);
  EXPECT_EQ(linesOf(thresholdLine), Lines{thresholdLine + "100000"}) << "it is counted again";
}

TEST_F(FullBatchTest, StaysBoundedWhileUserInfoIsAwaited) {
  userInfo.reset();
  const auto backend = makeInState(BackendState::sending, openEntryWith("event_threshold", 1));
  backend->setState(BackendState::sending);
  for (int i = 1; i <= 20; ++i) {
    send(*backend, {{"n", i}, {"text", std::string(textBytes, 'x')}});
  }
  EXPECT_TRUE(requests().empty());
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "player"}}));
  backend->updateState();
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("n"), (Lines{"18", "19", "20"}));
}

TEST_F(FullBatchTest, ALargeUserInfoInEveryRecordDoesNotMultiplyWithoutBound) {
  const auto backend = makeInState(BackendState::sending);
  for (int i = 1; i <= 40; ++i) send(*backend, {{"n", i}}, 0, static_cast<std::uint16_t>(i));
  backend->setUserInfoDict(shared(Dictionary{
      {"_clientName", "player"}, {"text", std::string(HeldRecords::messageByteLimit / 20, 'x')}}));
  backend->flushMessagesWithCompletion(nullptr);
  ASSERT_EQ(requests().size(), 1u);
  const Lines numbers = posted("n");
  EXPECT_LE(numbers.size(), 20u);
  EXPECT_EQ(numbers.back(), "40") << "the newest are kept";
  EXPECT_EQ(errors().size(), 1u);
}

TEST_F(FullBatchTest, AnEventThatThereIsNoMemoryToHoldGoesAtOnce) {
  const auto backend = makeInState(BackendState::sending);
  Budgets& budgets = Platform::current().budgets;
  const auto gate = std::make_shared<ExchangeGate>(*platform.clock, budgets, 1);
  backend->setExchangeGate(gate);
  const auto others = budgets.kept->take(1, std::size_t{40} << 20);
  for (int i = 1; i <= 3; ++i) sendLarge(*backend, i);
  EXPECT_EQ(posted("n"), (Lines{"1", "2", "3"}));
  EXPECT_TRUE(errors().empty());
}

TEST_F(FullBatchTest, AnEventThatThereIsNoMemoryToHoldAndThatMayNotGoIsDroppedWithALine) {
  const auto backend = makeInState(BackendState::waiting);
  Budgets& budgets = Platform::current().budgets;
  backend->setExchangeGate(std::make_shared<ExchangeGate>(*platform.clock, budgets, 1));
  const auto others = budgets.kept->take(1, std::size_t{40} << 20);
  for (int i = 1; i <= 3; ++i) sendLarge(*backend, i);
  EXPECT_EQ(errors().size(), 1u);
  backend->setState(BackendState::sending);
  backend->flushMessagesWithCompletion(nullptr);
  EXPECT_EQ(posted("n"), Lines{});
}

}  // namespace
}  // namespace corvid
