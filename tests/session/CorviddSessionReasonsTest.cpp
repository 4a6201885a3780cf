// What a session tells its client of reasons: for its states, and for messages that nobody took.
#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Backend = StatesReport::Backend;

// Without a path for events, as some kinds of backend are.
class PathlessBackend final : public CorvidBackend {
 public:
  PathlessBackend() : CorvidBackend("pathless", {}, shared()) {}
};

class CorviddSessionReasonsTest : public SessionTest {
 protected:
  std::optional<Reason> whyDropped(std::uint16_t category = 7) {
    RecordedResult recorded;
    session->sendMessageWithCategory(category, 1, std::nullopt, recorded.reply());
    return recorded.result().dropped;
  }
  int noticesOf(const std::function<void()>& act) {
    const int before = connection->statesNotices;
    act();
    return connection->statesNotices - before;
  }
};

TEST_F(CorviddSessionReasonsTest, TheReportIsWhatTheStatusShows) {
  EXPECT_EQ(session->statesReport().reason, Reason::noSessionInfo);
  session->setSessionInfo({{"ClientType", 5}}, std::nullopt, {}, false);
  EXPECT_EQ(session->statesReport().reason, Reason::notConfigured);
  session->startConfigWithCompletionHandler({});
  EXPECT_EQ(session->statesReport().reason, Reason::storebagUnreachable);
  EXPECT_THAT(session->statesReport().backends, IsEmpty());
  add("httpPost").stateAfterUpdate = BackendState::disabled;
  addAs("dashboard", "other");
  configureAndStart();
  const StatesReport report = session->statesReport();
  EXPECT_EQ(report.reason, std::nullopt);
  EXPECT_THAT(report.backends, ElementsAre(Backend{"dashboard", "sending", Reason::reporting, true},
                                           Backend{"httpPost", "disabled", Reason::reporting}));
}

TEST_F(CorviddSessionReasonsTest, WithAnEmptyTableNoBackendWasMade) {
  configureAndStart();
  EXPECT_EQ(session->statesReport().reason, Reason::noBackendMade);
}

TEST_F(CorviddSessionReasonsTest, TheConnectionHearsOfEachChange) {
  EXPECT_GT(noticesOf([&] { session->setSessionInfo({{"ClientType", 5}}, {}, {}, false); }), 0);
  EXPECT_GT(noticesOf([&] { session->startConfigWithCompletionHandler({}); }), 0)
      << "there is no storebag";
  FakeBackend& backend = add("httpPost");
  EXPECT_GT(noticesOf([&] { configureAndStart(); }), 0);
  EXPECT_EQ(noticesOf([&] { backend.settle(BackendState::disabled, Reason::disabledByServer); }),
            1);
  EXPECT_EQ(noticesOf([&] { backend.settle(BackendState::disabled, Reason::disabledByServer); }), 0)
      << "nothing has changed";
  EXPECT_EQ(noticesOf([&] { backend.setState(BackendState::disabled, Reason::noConsent); }), 1)
      << "the reason has";
}

TEST_F(CorviddSessionReasonsTest, AMessageWithoutBackendsIsDroppedForTheSessionsReason) {
  EXPECT_EQ(whyDropped(), Reason::noSessionInfo);
  session->setSessionInfo({{"ClientType", 5}}, std::nullopt, {}, false);
  EXPECT_EQ(whyDropped(), Reason::notConfigured);
  session->startConfigWithCompletionHandler({});
  EXPECT_EQ(whyDropped(), Reason::storebagUnreachable);
  configureAndStart();
  EXPECT_EQ(whyDropped(), Reason::noBackendMade);
}

TEST_F(CorviddSessionReasonsTest, AMessageWithoutCategoryIsIncomplete) {
  add("httpPost");
  configureAndStart();
  RecordedResult recorded;
  session->sendMessageWithDictionary({{"Type", 1}}, recorded.reply());
  EXPECT_EQ(recorded.result(), std::nullopt);
  EXPECT_EQ(recorded.result().dropped, Reason::incompleteMessage);
}

TEST_F(CorviddSessionReasonsTest, TheLedgerIsAskedOnlyWhereTheClientWantsReasons) {
  table.emplace();
  (*table)["pathless"] = std::make_shared<PathlessBackend>();
  configureAndStart();
  EXPECT_EQ(whyDropped(), std::nullopt);
  session->wantReasons();
  EXPECT_EQ(whyDropped(), Reason::takesNoEvents);
}

TEST_F(CorviddSessionReasonsTest, ASingleMessageWithoutAStorebagIsDroppedForItsReason) {
  agent->whyNoStorebag = Reason::unknownClientType;
  RecordedResult recorded;
  session->sendMessageWithSessionInfo({{"SessionID", 1}, {"ClientType", 99}}, std::nullopt, 1, 2,
                                      std::nullopt, recorded.reply());
  EXPECT_EQ(recorded.result(), "storebag not available");
  EXPECT_EQ(recorded.result().dropped, Reason::unknownClientType);
}

TEST_F(CorviddSessionReasonsTest, ASingleMessageThatMeetsNoBackendIsDropped) {
  session->wantReasons();
  agent->storebag = Dictionary{};
  table.emplace();
  RecordedResult recorded;
  session->sendMessageWithSessionInfo({{"SessionID", 1}, {"ClientType", 5}}, std::nullopt, 1, 2,
                                      std::nullopt, recorded.reply());
  EXPECT_EQ(recorded.result(), "finished");
  EXPECT_EQ(recorded.result().dropped, Reason::noBackendMade);
}

}  // namespace
}  // namespace corvid
