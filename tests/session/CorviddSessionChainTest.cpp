#include "tests/session/LockProbe.h"
#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CorviddSessionSyncTest : public SessionTest {
 protected:
  // A started session to be the parent. Its backends are those added since the last start.
  void startParent() {
    std::swap(session, parent);
    session = newSession();
    configureAndStart({{"SessionID", 1}});
    std::swap(session, parent);
  }

  std::shared_ptr<CorviddSession> parent;
};

TEST_F(CorviddSessionSyncTest, AChildTakesStateAndThresholdOfItsParentsBackend) {
  FakeBackend& parents = add(kCorvidBackendHTTPPost);
  startParent();
  parents.setSamplingThreshold(0.5);
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  own.stateAfterUpdate = BackendState::waiting;
  FakeBackend& dashboard = add(kCorvidBackendDashboard);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::sending);
  EXPECT_EQ(own.samplingThreshold(), 0.5);
  EXPECT_EQ(dashboard.state(), BackendState::disabled);
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("HTTPSPostBackend(syncReportingStates): httpPost: state and sampling "
                          "rate updated to 2, 0.50%"));
}

TEST_F(CorviddSessionSyncTest, TheThresholdIsPrintedAsAFloat) {
  FakeBackend& parents = add(kCorvidBackendHTTPPost);
  startParent();
  parents.setSamplingThreshold(0.615);  // as a double it would be 0.61
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("HTTPSPostBackend(syncReportingStates): httpPost: state and sampling "
                          "rate updated to 2, 0.62%"));
}

TEST_F(CorviddSessionSyncTest, AnAbsentThresholdIsCopiedTooAndPrintsAsZero) {
  FakeBackend& parents = add(kCorvidBackendHTTPPost);
  parents.stateAfterUpdate = BackendState::disabled;
  startParent();
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  own.setSamplingThreshold(0.5);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::disabled);
  EXPECT_EQ(own.samplingThreshold(), std::nullopt);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(syncReportingStates): httpPost: state and "
                               "sampling rate updated to 1, 0.00%"));
}

TEST_F(CorviddSessionSyncTest, AHeldBackendKeepsItsStateWhateverTheParentsIs) {
  add(kCorvidBackendHTTPPost).setSamplingThreshold(0.5);
  startParent();
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  own.stateAfterUpdate = BackendState::held;
  FakeBackend& missing = add(kCorvidBackendMetrix);
  missing.stateAfterUpdate = BackendState::held;
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::held);
  EXPECT_EQ(own.samplingThreshold(), std::nullopt);
  EXPECT_EQ(missing.state(), BackendState::held);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(CorviddSessionSyncTest, TheParentsBackendIsFoundByTableKey) {
  addAs("key", "a").stateAfterUpdate = BackendState::held;
  startParent();
  FakeBackend& own = addAs("key", "b");
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::held);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(syncReportingStates): b: state and sampling rate "
                               "updated to 3, 0.00%"));
}

TEST_F(CorviddSessionSyncTest, AParentWithoutATableDisablesTheChild) {
  parent = newSession();
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::disabled);
}

TEST_F(CorviddSessionSyncTest, ATopSessionNeverChangesItsStates) {
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  own.setSamplingThreshold(0.25);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::sending);
  EXPECT_EQ(own.samplingThreshold(), 0.25);
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

TEST_F(CorviddSessionSyncTest, AChildThatMissesItsParentSaysSoAndKeepsItsStates) {
  FakeBackend& own = add(kCorvidBackendHTTPPost);
  own.setHierarchy(2);
  add(kCorvidBackendDashboard);
  configureAndStart();
  session->syncReportingStates(parent.get());
  EXPECT_EQ(own.state(), BackendState::sending);
  EXPECT_THAT(platform.log.texts(LogLevel::info),
              ElementsAre("syncReportingStates: child session 7 (backend httpPost) with hierarchy "
                          "2 is missing its parent"));
}

TEST_F(CorviddSessionSyncTest, ASessionWithoutATableHasNothingToSync) {
  parent = newSession();
  platform.log.clear();
  session->syncReportingStates(parent.get());
  EXPECT_THAT(platform.log.lines(), IsEmpty());
}

class CorviddSessionAggregationTest : public SessionTest {
 protected:
  void SetUp() override {
    ancestorsConnection = std::make_shared<FakeConnection>();
    ancestor = newSession(ancestorsConnection);
    add(kCorvidBackendHTTPPost);
  }
  // What the connection's client got since the configuration.
  static std::vector<FakeConnection::Delivery> withoutStartMessage(const FakeConnection& client) {
    auto deliveries = client.deliveries();
    deliveries.erase(deliveries.begin());
    return deliveries;
  }

  std::shared_ptr<FakeConnection> ancestorsConnection;
  std::shared_ptr<CorviddSession> ancestor;
};

TEST_F(CorviddSessionAggregationTest, AMessageIsDeliveredToTheSessionsOwnClient) {
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  platform.clock->set({1'700'000'123, 250'000});
  send(3, 4, Dictionary{{"k", 1}});
  const auto deliveries = withoutStartMessage(*connection);
  ASSERT_EQ(deliveries.size(), 1u);
  EXPECT_EQ(deliveries[0].message, (Dictionary{{"SessionID", 7}}));
  EXPECT_EQ(deliveries[0].timestamp, 1'700'000'123.25);
  EXPECT_EQ(deliveries[0].category, 3);
  EXPECT_EQ(deliveries[0].type, 4);
  EXPECT_EQ(deliveries[0].payload, (Dictionary{{"k", 1}}));
}

TEST_F(CorviddSessionAggregationTest, UserInfoIsMergedIntoThePayloadAndWins) {
  configureAndStart({{"SessionID", 7}}, Dictionary{{"_clientName", "a"}, {"k", "user"}}, true);
  send(3, 4, Dictionary{{"k", "payload"}, {"j", 2}});
  EXPECT_EQ(withoutStartMessage(*connection).back().payload,
            (Dictionary{{"k", "user"}, {"j", 2}, {"_clientName", "a"}}));
}

TEST_F(CorviddSessionAggregationTest, TheBackendsGetThePayloadAsItCame) {
  const auto backend = std::static_pointer_cast<FakeBackend>(table->at("httpPost"));
  configureAndStart({{"SessionID", 7}}, Dictionary{{"k", "user"}}, true);
  send(3, 4, Dictionary{{"k", "payload"}});
  EXPECT_EQ(backend->sent.back().payload, (Dictionary{{"k", "payload"}}));
}

TEST_F(CorviddSessionAggregationTest, AMessageWithoutPayloadIsDeliveredWithoutUserInfo) {
  configureAndStart({{"SessionID", 7}}, Dictionary{{"_clientName", "a"}}, true);
  send(3, 4);
  EXPECT_EQ(withoutStartMessage(*connection).back().payload, std::nullopt);
}

TEST_F(CorviddSessionAggregationTest, AnAncestorsClientGetsTheMessageInsteadOfTheOwn) {
  agent->ancestor = ancestor;
  configureAndStart({{"SessionID", 7}}, Dictionary{{"_clientName", "a"}}, true);
  send(3, 4, Dictionary{{"k", 1}});
  EXPECT_THAT(connection->deliveries(), IsEmpty());
  const auto deliveries = withoutStartMessage(*ancestorsConnection);
  ASSERT_EQ(deliveries.size(), 1u);
  EXPECT_EQ(deliveries[0].message, (Dictionary{{"SessionID", 7}}));
  EXPECT_EQ(deliveries[0].payload, (Dictionary{{"k", 1}, {"_clientName", "a"}}));
}

TEST_F(CorviddSessionAggregationTest, WithoutAnyAggregatorTheMessageGoesToNone) {
  configureAndStart();
  send(3, 4, Dictionary{{"k", 1}});
  EXPECT_THAT(connection->deliveries(), IsEmpty());
  EXPECT_THAT(ancestorsConnection->deliveries(), IsEmpty());
}

TEST_F(CorviddSessionAggregationTest, AMessageThatIsNotDispatchedIsNotOfferedEither) {
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  send({{"Category", 1}});
  EXPECT_THAT(withoutStartMessage(*connection), IsEmpty());
}

TEST_F(CorviddSessionAggregationTest, TheAgentsMutexIsHeldForTheAncestorsClientOnly) {
  LockProbe probe(agent->mutex());
  std::optional<bool> heldForAncestor;
  std::optional<bool> freeForOwn;
  ancestorsConnection->onDelivery = [&] { heldForAncestor = probe.isHeld(); };
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  connection->onDelivery = [&] { freeForOwn = probe.isFree(); };
  send(3, 4);
  EXPECT_EQ(freeForOwn, true);
  agent->ancestor = ancestor;
  send(3, 4);
  EXPECT_EQ(heldForAncestor, true);
  connection->onDelivery = nullptr;
}

TEST_F(CorviddSessionAggregationTest, AClientThatCannotBeReachedIsLogged) {
  connection->deliveryError = "the connection is gone";
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  send(3, 4);
  EXPECT_THAT(platform.log.texts(LogLevel::error),
              ElementsAre("sendMessageWithDictionary: Failed to get remote object proxy: the "
                          "connection is gone"));
}

TEST_F(CorviddSessionAggregationTest, ShutdownTellsTheClientOnceAndIsNotUndone) {
  configureAndStart({{"SessionID", 7}}, std::nullopt, true);
  session->shutdownSessionAggregation();
  session->shutdownSessionAggregation();
  EXPECT_FALSE(session->hasAggregator());
  const auto deliveries = withoutStartMessage(*connection);
  ASSERT_EQ(deliveries.size(), 1u);
  EXPECT_EQ(deliveries[0].message, std::nullopt);
  EXPECT_EQ(deliveries[0].timestamp, 0.0);
  EXPECT_EQ(deliveries[0].category, 0);
  EXPECT_EQ(deliveries[0].type, 0);
  EXPECT_EQ(deliveries[0].payload, std::nullopt);
  EXPECT_EQ(
      platform.log.count(LogLevel::debug,
                         "shutdownSessionAggregation: Disable aggregation module for session 7"),
      2);
  send(3, 4);
  EXPECT_EQ(withoutStartMessage(*connection).size(), 1u);
}

}  // namespace
}  // namespace corvid
