#include <set>
#include <stdexcept>

#include "platform/data/PropertyList.h"
#include "tests/session/LockProbe.h"
#include "tests/session/SessionTest.h"

namespace corvid {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CorviddSessionLifecycleTest : public SessionTest {
 protected:
  // The payload of the start message that a new configuration sends.
  Dictionary startMessage() {
    FakeBackend& backend = add(kCorvidBackendHTTPPost);
    agent->storebag = Dictionary{};
    session->startConfigWithCompletionHandler({});
    return backend.sent.front().payload.value();
  }
  // A session of a new process.
  void restartOnAnInternalBuild() {
    session.reset();
    platform.device->set("ReleaseType", "Internal");
    platform.restart();
    session = newSession();
  }
  static std::set<std::string> keys(const Dictionary& dictionary) {
    std::set<std::string> keys;
    for (const auto& entry : dictionary) keys.insert(entry.key);
    return keys;
  }
};

TEST_F(CorviddSessionLifecycleTest, IsBornWithAUniqueIDAndTwoLogLines) {
  EXPECT_THAT(
      platform.log.texts(LogLevel::debug),
      ElementsAre(
          "initWithSessionDelegate: CorviddSession initWithSessionDelegate:fake agent",
          "initWithSessionDelegate: Initialized session with UUID " + session->sessionIDString()));
}

TEST_F(CorviddSessionLifecycleTest, SessionIDStringIsTheBase64OfASixteenByteUUID) {
  const std::string text = session->sessionIDString();
  EXPECT_EQ(text, "AAAAAAAAAAAAAAAAAAAAAQ==");
  EXPECT_EQ(text.size(), 24u);
  EXPECT_NE(newSession()->sessionIDString(), text);
}

TEST_F(CorviddSessionLifecycleTest, StartsUnconfigured) {
  EXPECT_EQ(session->sessionID(), 0u);
  EXPECT_EQ(session->sessionInfo(), nullptr);
  EXPECT_EQ(session->userInfo(), nullptr);
  EXPECT_EQ(session->storebagVersion(), std::nullopt);
  EXPECT_FALSE(session->hasAggregator());
  EXPECT_EQ(session->getSessionHierarchy(), 0);
}

TEST_F(CorviddSessionLifecycleTest, DescriptionNamesTheSession) {
  session->setSessionID(42);
  EXPECT_EQ(session->description(), "<CorviddSession: 42 AAAAAAAAAAAAAAAAAAAAAQ==>");
}

TEST_F(CorviddSessionLifecycleTest, SettersReplaceTheProperties) {
  session->setStorebagVersion("3");
  session->setHasAggregator(true);
  EXPECT_EQ(session->storebagVersion(), "3");
  EXPECT_TRUE(session->hasAggregator());
  session->setStorebagVersion(std::nullopt);
  EXPECT_EQ(session->storebagVersion(), std::nullopt);
}

TEST_F(CorviddSessionLifecycleTest, SetSessionInfoKeepsWhatTheClientSays) {
  platform.log.clear();
  const Dictionary info{{"SessionID", 4294967295}, {"RequireUserInfo", true}};
  session->setSessionInfo(info, Dictionary{{"_clientName", "a"}}, {"framework"}, true);
  EXPECT_EQ(session->sessionID(), 4294967295u);
  EXPECT_EQ(*session->sessionInfo(), info);
  EXPECT_EQ(*session->userInfo(), (Dictionary{{"_clientName", "a"}}));
  EXPECT_TRUE(session->hasAggregator());
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("setSessionInfo: Configuring session 4294967295"));
  EXPECT_THAT(platform.log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(CorviddSessionLifecycleTest, SetSessionInfoOverwritesEarlierValues) {
  session->setSessionInfo({{"SessionID", 1}}, Dictionary{}, {}, true);
  session->setSessionInfo({{"SessionID", 2}}, std::nullopt, {}, false);
  EXPECT_EQ(session->sessionID(), 2u);
  EXPECT_EQ(*session->sessionInfo(), (Dictionary{{"SessionID", 2}}));
  EXPECT_EQ(session->userInfo(), nullptr);
  EXPECT_FALSE(session->hasAggregator());
}

TEST_F(CorviddSessionLifecycleTest, SessionIDIsTheLow32BitsAndZeroWhenAbsentOrUnreadable) {
  session->setSessionInfo({{"SessionID", 0x1'0000'0002}}, std::nullopt, {}, false);
  EXPECT_EQ(session->sessionID(), 2u);
  session->setSessionInfo({{"SessionID", Array{}}}, std::nullopt, {}, false);
  EXPECT_EQ(session->sessionID(), 0u);
  session->setSessionID(9);
  session->setSessionInfo({}, std::nullopt, {}, false);
  EXPECT_EQ(session->sessionID(), 0u);
}

TEST_F(CorviddSessionLifecycleTest, UserInfoThatWasNotAnnouncedIsKeptWithAWarning) {
  session->setSessionInfo({{"RequireUserInfo", false}}, Dictionary{{"_clientName", "a"}}, {},
                          false);
  EXPECT_THAT(
      platform.log.texts(LogLevel::warning),
      ElementsAre("setSessionInfo: Configure session: user info provided without requiring it"));
  EXPECT_EQ(*session->userInfo(), (Dictionary{{"_clientName", "a"}}));
}

TEST_F(CorviddSessionLifecycleTest, WithoutUserInfoThereIsNothingToWarnAbout) {
  session->setSessionInfo({{"RequireUserInfo", false}}, std::nullopt, {}, false);
  EXPECT_THAT(platform.log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(CorviddSessionLifecycleTest, AnEmptyUserInfoIsAlsoUserInfo) {
  session->setSessionInfo({}, Dictionary{}, {}, false);
  EXPECT_EQ(platform.log.texts(LogLevel::warning).size(), 1u);
  EXPECT_EQ(*session->userInfo(), Dictionary{});
}

TEST_F(CorviddSessionLifecycleTest, WithoutAStorebagConfigurationAnswersNoStatesAndStops) {
  session->setSessionInfo({{"SessionID", 7}}, std::nullopt, {}, false);
  platform.log.clear();
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.result(), std::nullopt);
  EXPECT_THAT(journal->entries(), ElementsAre("agent storebagForSession"));
  EXPECT_THAT(
      platform.log.texts(LogLevel::debug),
      ElementsAre("startConfigWithCompletionHandler: Starting configuration for session 7"));
  EXPECT_EQ(session->storebagVersion(), std::nullopt);
  EXPECT_TRUE(creations.empty());
}

TEST_F(CorviddSessionLifecycleTest, ConfigurationTakesItsStepsInOrder) {
  session->setSessionInfo({{"SessionID", 7}}, std::nullopt, {}, false);
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  agent->storebagVersion = "2.1";
  platform.log.clear();
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_THAT(journal->entries(),
              ElementsAre("agent storebagForSession", "agent storebagVersionForSession",
                          "agent userInfoUpdatedForSession", "httpPost updateState",
                          "agent updateDownstreamSessions",
                          "agent getAncestorWithAggregatorForSession", "httpPost sendMessage 0 0"));
  EXPECT_THAT(platform.log.texts(LogLevel::debug),
              ElementsAre("startConfigWithCompletionHandler: Starting configuration for session 7",
                          "createBackendsWithStorebag: Creating backends for session 7",
                          "internalSendMessage: Sent internal message (method:0 respCode:0)"));
  EXPECT_EQ(session->storebagVersion(), "2.1");
  EXPECT_EQ(states.result(), (Array{"httpPost"}));
}

TEST_F(CorviddSessionLifecycleTest, ConfigurationWithoutACallbackConfiguresAllTheSame) {
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  session->startConfigWithCompletionHandler({});
  EXPECT_EQ(backend.sent.size(), 1u);
  EXPECT_EQ(send(1, 2), std::nullopt);
  EXPECT_EQ(backend.sent.size(), 2u);
}

TEST_F(CorviddSessionLifecycleTest, BackendsAreMadeFromStorebagInfosAndDeviceIdentifier) {
  const Dictionary info{{"SessionID", 7}, {"ClientType", 3}};
  const Dictionary user{{"_clientName", "a"}};
  session->setSessionInfo(info, user, {}, false);
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{{"httpPost", Dictionary{}}};
  session->startConfigWithCompletionHandler({});
  ASSERT_EQ(creations.size(), 1u);
  EXPECT_EQ(creations[0].section, agent->storebag);
  EXPECT_EQ(creations[0].sessionInfo, info);
  EXPECT_EQ(creations[0].userInfo, user);
  EXPECT_EQ(creations[0].udid, "0123456789abcdef0123456789abcdef01234567");
  EXPECT_EQ(backend.combinedSessionIDString(), session->sessionIDString());
}

TEST_F(CorviddSessionLifecycleTest, WithoutSessionInfoOrUserInfoNoneIsHandedOn) {
  add(kCorvidBackendHTTPPost);
  agent->storebag = Dictionary{};
  session->startConfigWithCompletionHandler({});
  ASSERT_EQ(creations.size(), 1u);
  EXPECT_EQ(creations[0].sessionInfo, std::nullopt);
  EXPECT_EQ(creations[0].userInfo, std::nullopt);
}

TEST_F(CorviddSessionLifecycleTest, WhereNoBackendTableResultsTheSessionHasNoStates) {
  agent->storebag = Dictionary{};
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.result(), std::nullopt);
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "sendMessageWithDictionary: No backends available to send message"));
}

TEST_F(CorviddSessionLifecycleTest, TheDefaultCreatorMakesTheDaemonsOwnBackends) {
  auto plain = CorviddSession::initWithSessionDelegate(agent, connection);
  plain->setSessionInfo({{"SessionID", 7}, {"ClientType", 5}}, std::nullopt, {}, false);
  agent->storebag = Dictionary{{"nonsense", Dictionary{}}};
  RecordedStates states;
  plain->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.result(), Array{});
  EXPECT_TRUE(platform.log.has(LogLevel::error, "CorvidBackend(newBackendWithName): nonsense"));
}

TEST_F(CorviddSessionLifecycleTest, AllBackendsThatAClientEverHasShareOneGate) {
  add(kCorvidBackendHTTPPost);
  FakeBackend& second = add(kCorvidBackendHTTPPost2);
  const auto kept = *table;
  configureAndStart();
  ASSERT_NE(second.gate, nullptr);
  for (const auto& [key, backend] : kept)
    EXPECT_EQ(std::static_pointer_cast<FakeBackend>(backend)->gate, second.gate);
  FakeBackend& third = add(kCorvidBackendHTTPPost);
  configureAndStart();
  EXPECT_EQ(third.gate, second.gate);
  FakeBackend& single = add(kCorvidBackendHTTPPost);
  const auto keptToo = *table;
  session->sendMessageWithSessionInfo({{"SessionID", 7}, {"ClientType", 5}}, std::nullopt, 1, 2,
                                      std::nullopt, {});
  EXPECT_EQ(single.gate, second.gate);

  session = newSession();
  FakeBackend& others = add(kCorvidBackendHTTPPost);
  configureAndStart();
  EXPECT_NE(others.gate, second.gate);
}

TEST_F(CorviddSessionLifecycleTest, ASecondConfigurationCleansTheOldBackendsUpUnflushed) {
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  add(kCorvidBackendDashboard);
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.result(), (Array{"dashboard"}));
  EXPECT_THAT(
      journal->entries(),
      ElementsAre("agent storebagForSession", "agent storebagVersionForSession",
                  "agent userInfoUpdatedForSession", "dashboard updateState",
                  "agent updateDownstreamSessions", "httpPost cleanup", "httpPost gone",
                  "agent getAncestorWithAggregatorForSession", "dashboard sendMessage 0 0"));
}

TEST_F(CorviddSessionLifecycleTest, NobodyMeetsBackendsThatDoNotKnowTheirLevelYet) {
  LockProbe probe(agent->mutex());
  bool held = false;
  FakeBackend& backend = add(kCorvidBackendHTTPPost);
  backend.onUpdateState = [&] { held = probe.isHeld(); };
  configureAndStart();
  EXPECT_TRUE(held);
  EXPECT_TRUE(probe.isFree());
  held = false;
  session->fetchStatesWithUserInfo(Dictionary{{"_clientName", "a"}}, {});
  EXPECT_TRUE(held);
  EXPECT_TRUE(probe.isFree());
  backend.onUpdateState = nullptr;
}

TEST_F(CorviddSessionLifecycleTest, ASecondConfigurationWithoutAStorebagLeavesTheBackends) {
  FakeBackend& kept = add(kCorvidBackendHTTPPost);
  configureAndStart();
  agent->storebag = std::nullopt;
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.result(), std::nullopt);
  EXPECT_THAT(journal->entries(), ElementsAre("agent storebagForSession"));
  send(3, 4);
  EXPECT_EQ(kept.sent.back().method, 3);
}

TEST_F(CorviddSessionLifecycleTest,
       AStorebagThatCannotBeUsedLeavesReplyUnansweredAndSessionUsable) {
  agent->storebagFailure = Failure{"no version"};
  RecordedStates states;
  session->startConfigWithCompletionHandler(states.reply());
  EXPECT_EQ(states.answers(), 0u);
  EXPECT_TRUE(states.unanswered());
  agent->storebagFailure.reset();
  add(kCorvidBackendHTTPPost);
  configureAndStart();
  RecordedStates again;
  session->fetchStatesWithUserInfo(std::nullopt, again.reply());
  EXPECT_EQ(again.result(), (Array{"httpPost"}));
}

TEST_F(CorviddSessionLifecycleTest, HierarchyIsThatOfHTTPPost2ThenHTTPPostThenZero) {
  add(kCorvidBackendDashboard).setHierarchy(5);
  configureAndStart();
  EXPECT_EQ(session->getSessionHierarchy(), 0);
  add(kCorvidBackendHTTPPost).setHierarchy(1);
  configureAndStart();
  EXPECT_EQ(session->getSessionHierarchy(), 1);
  add(kCorvidBackendHTTPPost).setHierarchy(1);
  add(kCorvidBackendHTTPPost2).setHierarchy(2);
  configureAndStart();
  EXPECT_EQ(session->getSessionHierarchy(), 2);
}

TEST_F(CorviddSessionLifecycleTest, OnAnOrdinaryBuildTheStartMessageHasTwoKeys) {
  EXPECT_EQ(startMessage(), (Dictionary{{"Locale", "US"}, {"AutomaticTimeSet", true}}));
}

TEST_F(CorviddSessionLifecycleTest, OnAnInternalBuildTheStartMessageDescribesTheDevice) {
  restartOnAnInternalBuild();
  EXPECT_EQ(startMessage(), (Dictionary{{"SerialNum", "C0RV1D000001"},
                                        {"Version", "12.3"},
                                        {"Build", "20F71"},
                                        {"Hardware", "R52AP"},
                                        {"Product", "Robin"},
                                        {"ReportVers", "8.0"},
                                        {"Locale", "US"},
                                        {"AutomaticTimeSet", true}}));
}

TEST_F(CorviddSessionLifecycleTest, TheStartMessageNamesTheVersionOfTheClientLibrary) {
  restartOnAnInternalBuild();
  platform.files->files[Platform::current().paths().infoFile].content =
      writeXMLPropertyList(Dictionary{{"BundleVersion", "12.1"}});
  EXPECT_EQ(*startMessage().find("ReportVers"), Value("12.1"));
}

TEST_F(CorviddSessionLifecycleTest, EachMissingDeviceAnswerBecomesUnknown) {
  restartOnAnInternalBuild();
  const std::map<std::string, std::string> keyOfAnswer{{"SerialNumber", "SerialNum"},
                                                       {"ProductVersion", "Version"},
                                                       {"BuildVersion", "Build"},
                                                       {"HWModelStr", "Hardware"},
                                                       {"DeviceName", "Product"}};
  for (const auto& [answer, key] : keyOfAnswer) {
    const std::string before = platform.device->answer(answer).value.value();
    platform.device->remove(answer);
    const Dictionary message = startMessage();
    EXPECT_EQ(*message.find(key), Value("Unknown")) << key;
    EXPECT_EQ(keys(message).size(), 8u);
    platform.device->set(answer, before);
  }
}

TEST_F(CorviddSessionLifecycleTest, WithoutACountryTheStartMessageHasNoLocale) {
  platform.locale->country = std::nullopt;
  EXPECT_EQ(keys(startMessage()), (std::set<std::string>{"AutomaticTimeSet"}));
}

TEST_F(CorviddSessionLifecycleTest, AutomaticTimeSetFollowsThePreference) {
  const auto told = [&](Value preference) {
    platform.preferences->setValue("com.halcyon.timed", "TMAutomaticTimeZoneEnabled",
                                   std::move(preference));
    return *startMessage().find("AutomaticTimeSet");
  };
  EXPECT_EQ(told(false), Value(false));
  EXPECT_EQ(told(true), Value(true));
  EXPECT_EQ(told(0), Value(false));
  EXPECT_EQ(told(2), Value(true));
  EXPECT_EQ(told(0.0), Value(false));
}

TEST_F(CorviddSessionLifecycleTest, AutomaticTimeSetIsTrueWhereThePreferenceIsNoTruthValue) {
  EXPECT_EQ(*startMessage().find("AutomaticTimeSet"), Value(true));
  platform.preferences->setValue("com.halcyon.timed", "TMAutomaticTimeZoneEnabled", "no");
  EXPECT_EQ(*startMessage().find("AutomaticTimeSet"), Value(true));
}

}  // namespace
}  // namespace corvid
