// What an event becomes.
#include <limits>

#include "backends/BackendSet.h"
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct EventRecordTest : PostBackendFixture {
  EventRecordTest() {
    platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
  }

  // The record that the backend posts for the payload.
  Dictionary recordOf(HTTPSPostBackend& backend, const Dictionary* payload,
                      std::uint16_t method = 3, std::uint16_t respCode = 4) {
    const std::size_t before = requests().size();
    backend.sendMessage(payload, platform.clock->now(), method, respCode, MessageFlag{0});
    if (requests().size() != before + 1) return {};
    return eventsOf(requests().back()).at(0);
  }
  Dictionary recordOf(HTTPSPostBackend& backend, const Dictionary& payload = {}) {
    return recordOf(backend, &payload);
  }
  static std::vector<std::string> keysOf(const Dictionary& record) {
    std::vector<std::string> keys;
    for (const auto& entry : record) keys.push_back(entry.key);
    return keys;
  }
};

TEST_F(EventRecordTest, TheRecordIsThePayloadWithTheSessionsAndTheDevicesValues) {
  const auto backend = makeFor(openEntry());
  platform.clock->advance(std::chrono::milliseconds(1500));
  send(*backend, {{"title", "Song"}, {"count", 2}, {"share", 0.5}, {"live", true}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(messageOf(requests()[0]),
            R"({"postTime":1700000001.5,"clientId":"RESPECTED-ID","events":[)"
            R"({"title":"Song","count":2,"share":0.5,"live":true,"_startTS":1699999980,)"
            R"("_sender":"ZH","_clientVersion":7,"_sessionID":"TOP.OWN","_eventNumber":1,)"
            R"("_method":3,"_status":4,"_clientTS":1699999981.5,"eventTime":1699999981.5,)"
            R"("_productFamily":"Robin","_productModel":"Robin5,2","_osVersion":"12.3",)"
            R"("_build":"20F71","_internal":0,"_reportVers":"8.0","_timezoneOffset":3600,)"
            R"("_clientName":"player","_serviceName":"radio"}]})");
}

TEST_F(EventRecordTest, AddedKeysOverwriteThoseOfThePayloadInTheirPlace) {
  const auto backend = makeFor(openEntry());
  const Dictionary record =
      recordOf(*backend, {{"_status", "mine"}, {"x", 1}, {"eventTime", "mine"}});
  EXPECT_EQ(
      keysOf(record),
      (std::vector<std::string>{
          "_status", "x", "eventTime", "_startTS", "_sender", "_clientVersion", "_sessionID",
          "_eventNumber", "_method", "_clientTS", "_productFamily", "_productModel", "_osVersion",
          "_build", "_internal", "_reportVers", "_timezoneOffset", "_clientName", "_serviceName"}));
  EXPECT_EQ(*record.find("_status"), Value(4));
  EXPECT_EQ(*record.find("eventTime"), Value(1699999980.0));
}

TEST_F(EventRecordTest, AnAbsentPayloadGivesTheAddedKeysAlone) {
  const auto backend = makeFor(openEntry());
  const Dictionary record = recordOf(*backend, nullptr);
  EXPECT_EQ(record.size(), 18u);
  EXPECT_EQ(*record.find("_eventNumber"), Value(1));
}

TEST_F(EventRecordTest, AtTheStartTheClientTimeIsTheStartOfTheMinute) {
  const auto backend = makeFor(openEntry());
  const Dictionary record = recordOf(*backend);
  EXPECT_EQ(*record.find("_startTS"), Value(1699999980));
  EXPECT_EQ(*record.find("_clientTS"), Value(1699999980.0));
  EXPECT_EQ(*record.find("eventTime"), Value(1699999980.0));
  EXPECT_EQ(1699999980 % 60, 0);
}

TEST_F(EventRecordTest, TheStartIsCutTowardZero) {
  adjustIdentity = [](BackendIdentity& identity) {
    identity.setStartTimestamp({-119, 500000});  // -118.5
  };
  EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_startTS"), Value(-60));
}

TEST_F(EventRecordTest, EventsBeforeTheStartHaveTheirOwnTime) {
  const auto backend = makeFor(openEntry());
  const Dictionary payload;
  backend->sendMessage(&payload, {1699999990, 0}, 3, 4, MessageFlag{0});
  EXPECT_EQ(posted("_clientTS"), std::vector<std::string>{"1699999970"});
}

// Each reading is a minute and a second later than the one before.
class HurryingClock final : public Clock {
 public:
  TimeValue now() override { return {_seconds += 61, 0}; }
  TimePoint steadyNow() override { return {}; }
  std::chrono::nanoseconds sleepTowards(TimePoint) override { return {}; }

 private:
  std::int64_t _seconds = 1'700'000'000;
};

TEST_F(EventRecordTest, BackendsMadeTogetherHaveOneStart) {
  Platform::Services services = platform.services();
  services.clock = std::make_shared<HurryingClock>();
  Platform hurrying(std::move(services));
  Platform::install(&hurrying);
  const Dictionary profile{{"clients", Array{openEntry()}}};
  const Dictionary section{{"httpPost", profile}, {"httpPost2", profile}};
  const auto backends = createBackends(&section, &sessionInfo, shared(*userInfo), udid);
  for (const auto& [name, backend] : *backends) {
    backend->updateState();
    backend->sendMessage(nullptr, {1'700'000'100, 0}, 3, 4, MessageFlag{0});
  }
  // The first reading was 1700000061, in the minute from 1700000040 on.
  EXPECT_EQ(posted("_startTS"), std::vector<std::string>(2, "1700000040"));
  EXPECT_EQ(posted("_clientTS"), std::vector<std::string>(2, "1700000079"));
  platform.restart();
}

TEST_F(EventRecordTest, EventNumbersCountUpFromOne) {
  const auto backend = makeFor(openEntry());
  for (int i = 0; i < 3; ++i) send(*backend, {});
  EXPECT_EQ(posted("_eventNumber"), (std::vector<std::string>{"1", "2", "3"}));
}

TEST_F(EventRecordTest, WithoutACombinedSessionIDTheKeyIsLeftOut) {
  const Dictionary profile{{"clients", Array{openEntry()}}};
  const auto backend = HTTPSPostBackend::initWithName("httpPost", &profile, shared());
  backend->updateState();
  EXPECT_EQ(recordOf(*backend).find("_sessionID"), nullptr);
}

TEST_F(EventRecordTest, SomeClientsOnInternalBuildsAreKnownByNumber) {
  platform.device->set("ReleaseType", "Internal");
  for (const int type : {7, 11, 13}) {
    sessionInfo.set("ClientType", type);
    EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_sessionID"), Value(99)) << type;
  }
  sessionInfo.set("ClientType", 6);
  EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_sessionID"), Value("TOP.OWN"));
}

TEST_F(EventRecordTest, OnOtherBuildsThoseClientsAreKnownByTheCombinedID) {
  sessionInfo.set("ClientType", 7);
  EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_sessionID"), Value("TOP.OWN"));
}

TEST_F(EventRecordTest, TheInternalFlagIsTheBuildsNotTheBackends) {
  adjustIdentity = [](BackendIdentity& identity) { identity.isInternal = true; };
  EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_internal"), Value(0));
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  EXPECT_EQ(*recordOf(*makeFor(openEntry())).find("_internal"), Value(1));
}

TEST_F(EventRecordTest, AbsentVersionsAreLeftOut) {
  platform.device->remove("ProductVersion");
  platform.device->remove("BuildVersion");
  platform.device->remove("ProductType");
  const Dictionary record = recordOf(*makeFor(openEntry()));
  for (const char* key : {"_osVersion", "_build", "_productModel"})
    EXPECT_EQ(record.find(key), nullptr) << key;
  EXPECT_EQ(*record.find("_productFamily"), Value("Robin"));
}

TEST_F(EventRecordTest, ReportVersionAndTimeZoneAreThoseOfNow) {
  adjustIdentity = [](BackendIdentity& identity) { identity.setSelfVersion("255.17"); };
  const auto backend = makeFor(openEntry());
  platform.locale->offset = -12600;
  const Dictionary record = recordOf(*backend);
  EXPECT_EQ(*record.find("_reportVers"), Value("255.17"));
  EXPECT_EQ(*record.find("_timezoneOffset"), Value(-12600));
  platform.clock->advance(std::chrono::hours(5000));
  recordOf(*backend);
  EXPECT_EQ(platform.locale->askedFor, platform.clock->now().seconds);
}

TEST_F(EventRecordTest, NumbersOfAnEventKeepTheirWholeRange) {
  const auto backend = makeFor(openEntry());
  const Dictionary payload;
  const Dictionary record = recordOf(*backend, &payload, 65535, 65534);
  EXPECT_EQ(*record.find("_method"), Value(65535));
  EXPECT_EQ(*record.find("_status"), Value(65534));
}

TEST_F(EventRecordTest, EachRecordHasWhatHoldsAtItsTime) {
  const auto backend = makeFor(openEntry());
  const Dictionary first = recordOf(*backend, {{"open", 1}});
  EXPECT_EQ(*first.find("_sessionID"), Value("TOP.OWN"));
  platform.locale->offset = -12600;
  EXPECT_EQ(*recordOf(*backend).find("_timezoneOffset"), Value(-12600));
  backend->setCorrelatedSessionID("OTHER.OWN");
  EXPECT_EQ(*recordOf(*backend).find("_sessionID"), Value("OTHER.OWN"));
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "renamed"}}));
  const Dictionary record = recordOf(*backend, {{"open", 1}});
  EXPECT_EQ(*record.find("_clientName"), Value("renamed"));
  EXPECT_FALSE(record.contains("_serviceName"));
  EXPECT_EQ(*record.find("_eventNumber"), Value(4));
}

// Preparation

TEST_F(EventRecordTest, UserInfoWinsOverEqualKeys) {
  userInfo->set("x", "user's");
  userInfo->set("_build", "user's");
  const Dictionary record = recordOf(*makeFor(openEntry()), {{"x", 1}});
  EXPECT_EQ(*record.find("x"), Value("user's"));
  EXPECT_EQ(*record.find("_build"), Value("user's"));
}

TEST_F(EventRecordTest, FiltersApplyToTheWholeRecord) {
  userInfo->set("account", "abc");
  const auto backend = makeFor(openEntryWith(
      "filters", Array{Dictionary{{"key", "ACCOUNT"}, {"action", "sha256"}},
                       Dictionary{{"key", "_build"}, {"action", "remove"}},
                       Dictionary{{"key", "x"}, {"action", "remove"}, {"method", 3}},
                       Dictionary{{"key", "y"}, {"action", "remove"}, {"status", 5}}}));
  const Dictionary record = recordOf(*backend, {{"x", 1}, {"y", 2}});
  EXPECT_EQ(*record.find("account"),
            Value("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
  EXPECT_EQ(record.find("_build"), nullptr);
  EXPECT_EQ(record.find("x"), nullptr);
  EXPECT_EQ(*record.find("y"), Value(2));
}

// The end of a session

TEST_F(EventRecordTest, AStopEventCarriesTheSummary) {
  platform.random->draw = 0.5;
  platform.consent->allowed = false;
  Dictionary entry = openEntryWith("override_dnu", 1);
  entry.set("sampling_threshold", 0.25);
  entry.set("override_sampling", 0.75);
  const auto backend = makeFor(entry);
  ASSERT_EQ(backend->state(), BackendState::held);
  backend->setState(BackendState::sending);
  const Dictionary payload{{"StorebagVersion", "7"}};
  const Dictionary record = recordOf(*backend, &payload, 0, 1);
  EXPECT_EQ(*record.find("Opt"), Value(1));
  EXPECT_EQ(*record.find("SamplingThreshold"), Value(0.25));
  EXPECT_EQ(*record.find("OverrideSampling"), Value(0.75));
  EXPECT_EQ(*record.find("Batch"), Value(0));
  EXPECT_EQ(keysOf(record)[1], "Opt") << "part of the payload";
  EXPECT_TRUE(payload.size() == 1) << "the caller's payload stays";
  EXPECT_TRUE(platform.log.has(LogLevel::debug,
                               "HTTPSPostBackend(sendMessage): Adding dnu type and sampling "
                               "threshold to SESSION_TYPE_STOP message dictionary"));
}

TEST_F(EventRecordTest, AStopEventWithoutSamplingCarriesMinusOne) {
  sessionInfo.set("RequireUserInfo", false);
  const auto backend = makeFor(openEntryWith("expedite", 1));
  const Dictionary payload;
  const Dictionary record = recordOf(*backend, &payload, 0, 1);
  EXPECT_EQ(*record.find("Opt"), Value(0));
  EXPECT_EQ(*record.find("SamplingThreshold"), Value(-1));
  EXPECT_EQ(*record.find("OverrideSampling"), Value(-1));
}

TEST_F(EventRecordTest, ConsentThatNeedsNoOverrideIsTypeTwo) {
  const auto backend = makeFor(openEntryWith("override_dnu", 1));
  const Dictionary payload;
  EXPECT_EQ(*recordOf(*backend, &payload, 0, 1).find("Opt"), Value(2));
}

TEST_F(EventRecordTest, AnOverrideThresholdThatSamplingDidNotAskForIsNotReported) {
  platform.random->draw = 0.5;
  const auto backend = makeFor(openEntryWith("override_sampling", 0.75));
  ASSERT_EQ(backend->state(), BackendState::sending);
  const Dictionary payload;
  EXPECT_EQ(*recordOf(*backend, &payload, 0, 1).find("OverrideSampling"), Value(-1));
}

TEST_F(EventRecordTest, TheOverrideThresholdStaysWhenALaterEntryLacksIt) {
  platform.random->draw = 0.5;
  Dictionary first = openEntryWith("client", "player");
  first.set("sampling_threshold", 0.25);
  first.set("override_sampling", 0.75);
  const auto backend = makeFor(Array{first, openEntry()});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  ASSERT_EQ(backend->state(), BackendState::sending);
  const Dictionary payload;
  EXPECT_EQ(*recordOf(*backend, &payload, 0, 1).find("OverrideSampling"), Value(0.75));
}

TEST_F(EventRecordTest, TheOverrideThresholdStaysWhenALaterEntryThatHoldsLacksIt) {
  platform.random->draw = 0.5;
  Dictionary first = openEntryWith("client", "player");
  first.set("sampling_threshold", 0.25);
  first.set("override_sampling", 0.75);
  const auto backend = makeFor(Array{first, openEntryWith("sampling_threshold", 0.25)});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  ASSERT_EQ(backend->state(), BackendState::held);
  backend->setState(BackendState::sending);
  const Dictionary payload;
  EXPECT_EQ(*recordOf(*backend, &payload, 0, 1).find("OverrideSampling"), Value(0.75));
}

TEST_F(EventRecordTest, AStopEventOfABatchingBackendSaysSo) {
  const auto backend = makeFor(openEntryWith("expedite", 0));
  const Dictionary payload;
  backend->sendMessage(&payload, platform.clock->now(), 0, 1, MessageFlag{1});
  EXPECT_EQ(posted("Batch"), std::vector<std::string>{"1"});
}

TEST_F(EventRecordTest, AStopEventWithoutAPayloadIsLoggedAndSentWithoutASummary) {
  const auto backend = makeFor(openEntry());
  const Dictionary record = recordOf(*backend, nullptr, 0, 1);
  EXPECT_EQ(record.size(), 18u);
  EXPECT_EQ(record.find("Opt"), nullptr);
  EXPECT_TRUE(platform.log.has(
      LogLevel::error,
      "HTTPSPostBackend(sendMessage): SESSION_TYPE_STOP message dictionary is nil"));
}

}  // namespace
}  // namespace corvid
