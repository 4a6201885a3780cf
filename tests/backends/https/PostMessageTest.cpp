// The message, its headers, its log text and what an exchange's end does.
#include <algorithm>
#include <limits>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/backends/https/PostBackendFixture.h"

namespace corvid {
namespace {

struct PostMessageTest : PostBackendFixture {
  // The client identifier of the next message of the backend.
  std::string clientIdOf(HTTPSPostBackend& backend) {
    send(backend, {});
    const Result<Value> message = parseJSON(messageOf(requests().back()));
    const Value* identifier = message.value().dictionary()->find("clientId");
    return identifier ? *identifier->string() : "missing";
  }
  // Its messages are too short to shrink.
  std::shared_ptr<HTTPSPostBackend> makeWithoutIdentifier() {
    adjustIdentity = [](BackendIdentity& identity) {
      identity.isInternal = true;
      identity.udid = std::nullopt;
    };
    return makeFor(openEntryWith("extras_on_internal", 1));
  }
  // Whether the next event's answer holds the log text.
  bool logsMessages(HTTPSPostBackend& backend) { return send(backend, {}).has_value(); }
  void setEnvironment(int type) {
    platform.preferences->setValue(corvidSuite, "environmentType", type);
    platform.preferences->setValue(corvidSuite, "forceEventLogging", true);
    platform.restart();
  }
};

// Value rules

TEST_F(PostMessageTest, DatesBecomeSecondsAndWhatJSONLacksIsRemoved) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"when", Date{1700000000.25}},
                  {"list", Array{1, "a"}},
                  {"table", Dictionary{{"k", 2}}},
                  {"bytes", Data{"\x01\xAB"}},
                  {"none", Value()},
                  {"flag", false},
                  {"x", 1}});
  const Dictionary record = eventsOf(requests().at(0)).at(0);
  EXPECT_EQ(*record.find("when"), Value(1700000000.25));
  EXPECT_EQ(*record.find("flag"), Value(false));
  EXPECT_EQ(*record.find("x"), Value(1));
  for (const char* key : {"list", "table", "bytes", "none"})
    EXPECT_EQ(record.find(key), nullptr) << key;
  const std::string prefix =
      "HTTPSPostBackend(createMessageForPostAndLogging): JSONSerializer unable to handle key: ";
  EXPECT_EQ(platform.log.texts(LogLevel::warning),
            (std::vector<std::string>{
                prefix + "list, value: [1,\"a\"]", prefix + "table, value: {\"k\":2}",
                prefix + "bytes, value: 01ab", prefix + "none, value: (null)"}));
}

TEST_F(PostMessageTest, DatesThatAreNoFiniteNumberBecomeMinusOne) {
  const auto backend = makeFor(openEntry());
  send(*backend, {{"a", Date{std::numeric_limits<double>::infinity()}},
                  {"b", Date{std::numeric_limits<double>::quiet_NaN()}}});
  EXPECT_EQ(posted("a"), std::vector<std::string>{"-1"});
  EXPECT_EQ(posted("b"), std::vector<std::string>{"-1"});
}

TEST_F(PostMessageTest, NumbersThatAreNotFiniteMakeNoMessage) {
  const auto backend = makeFor(openEntry());
  EXPECT_EQ(send(*backend, {{"a", std::numeric_limits<double>::infinity()}}), std::nullopt);
  EXPECT_EQ(send(*backend, {{"\xC3", 1}}), std::nullopt);
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(platform.log.count(LogLevel::error,
                               "HTTPSPostBackend(createMessageForPostAndLogging): a message of 1 "
                               "events cannot be written as JSON and is lost"),
            2);
}

// Client identifier

TEST_F(PostMessageTest, TheIdentifierFollowsConsent) {
  EXPECT_EQ(clientIdOf(*makeFor(openEntry())), "RESPECTED-ID");
  EXPECT_EQ(clientIdOf(*makeFor(openEntryWith("override_dnu", 1))), "OVERRIDE-ID") << "type 2";
  platform.consent->allowed = false;
  EXPECT_EQ(clientIdOf(*makeFor(openEntryWith("override_dnu", 1))), "OVERRIDE-ID") << "type 1";
}

TEST_F(PostMessageTest, AnEntryThatRespectsConsentAgainBringsIdentifierAndLogTextBack) {
  Dictionary first = openEntryWith("override_dnu", 1);
  first.set("client", "player");
  const auto backend = makeFor(Array{first, openEntry()});
  EXPECT_EQ(clientIdOf(*backend), "OVERRIDE-ID");
  EXPECT_FALSE(logsMessages(*backend));
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  EXPECT_EQ(clientIdOf(*backend), "RESPECTED-ID");
  EXPECT_TRUE(logsMessages(*backend));
}

TEST_F(PostMessageTest, ACustomIdentifierComesBeforeThem) {
  Dictionary entry = openEntryWith("custom_clientId", 1);
  EXPECT_EQ(clientIdOf(*makeFor(entry)), "00000000-0000-0000-0000-000000000001");
  entry.set("override_dnu", 1);
  EXPECT_EQ(clientIdOf(*makeFor(entry)), "00000000-0000-0000-0000-000000000001");
}

TEST_F(PostMessageTest, ACustomIdentifierStaysWhenALaterEntryAsksForNone) {
  Dictionary custom = openEntryWith("custom_clientId", 1);
  custom.set("client", "player");
  const auto backend = makeFor(Array{custom, openEntry()});
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  EXPECT_EQ(clientIdOf(*backend), "00000000-0000-0000-0000-000000000001");
}

TEST_F(PostMessageTest, ExtrasOnAnInternalBuildSendTheDeviceIdentifier) {
  Dictionary entry = openEntryWith("extras_on_internal", 1);
  entry.set("custom_clientId", 1);
  EXPECT_EQ(clientIdOf(*makeFor(entry)), "00000000-0000-0000-0000-000000000001") << "not internal";
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  EXPECT_EQ(clientIdOf(*makeFor(entry)), udid);
  EXPECT_EQ(clientIdOf(*makeFor(openEntry())), "RESPECTED-ID") << "no extras";
}

TEST_F(PostMessageTest, ExtrasEndWithAnEntryThatLacksThem) {
  platform.device->set("ReleaseType", "Internal");
  platform.restart();
  Dictionary first = openEntryWith("extras_on_internal", 1);
  first.set("client", "player");
  const auto backend = makeFor(Array{first, openEntry()});
  EXPECT_EQ(clientIdOf(*backend), udid);
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", "other"}}));
  backend->updateState();
  EXPECT_EQ(clientIdOf(*backend), "RESPECTED-ID");
}

TEST_F(PostMessageTest, WithoutAnIdentifierTheMessageEndsAfterTheTime) {
  const auto backend = makeWithoutIdentifier();
  send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(messageOf(requests()[0]), R"({"postTime":1700000000.0})");
}

// Log text

TEST_F(PostMessageTest, WithConsentTheLogTextIsThePrettyMessage) {
  const auto backend = makeFor(openEntry());
  const auto text = send(*backend, {{"x", 1}});
  const Result<Value> message = parseJSON(messageOf(requests().at(0)));
  EXPECT_EQ(text, indentedJSON(*writeJSON(*message.value().dictionary())));
}

TEST_F(PostMessageTest, WithConsentOverriddenThereIsNoLogText) {
  EXPECT_FALSE(logsMessages(*makeFor(openEntryWith("override_dnu", 1))));
  platform.consent->allowed = false;
  EXPECT_FALSE(logsMessages(*makeFor(openEntryWith("override_dnu", 1))));
  sessionInfo.set("RequireUserInfo", false);
  EXPECT_FALSE(logsMessages(*makeFor(openEntry()))) << "type 0, but no consent";
}

TEST_F(PostMessageTest, ForcedLoggingWorksInDevelopmentAndInternalEnvironments) {
  const Dictionary entry = openEntryWith("override_dnu", 1);
  for (const int type : {1, 2}) {
    setEnvironment(type);
    EXPECT_TRUE(logsMessages(*makeFor(entry))) << type;
  }
  for (const int type : {0, 3, 4}) {
    setEnvironment(type);
    EXPECT_FALSE(logsMessages(*makeFor(entry))) << type;
  }
}

TEST_F(PostMessageTest, ForcedLoggingIsReadAtCreationAndMustBeSet) {
  const Dictionary entry = openEntryWith("override_dnu", 1);
  setEnvironment(1);
  const auto backend = makeFor(entry);
  platform.preferences->setValue(corvidSuite, "forceEventLogging", false);
  EXPECT_TRUE(logsMessages(*backend));
  EXPECT_FALSE(logsMessages(*makeFor(entry)));
}

// Request

TEST_F(PostMessageTest, HeadersOfASingleEventInTheirOrder) {
  platform.device->set("ReleaseType", "Internal");
  const auto backend = makeFor(openEntry());
  send(*backend, {{"text", std::string(200, 'a')}}, 0, 65535, 12);
  const HTTPRequest request = requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.url, batchURL);
  EXPECT_EQ(request.timeout, std::chrono::milliseconds(60'000));
  EXPECT_FALSE(request.wantsBody);
  EXPECT_EQ(request.headers, (HTTPHeaders{{"X-CVD-Client-Name", "player"},
                                          {"X-CVD-Service-Name", "radio"},
                                          {"X-CVD-Internal-Build", "1"},
                                          {"User-Agent", "Corvid/8.0 (Robin5,2; 12.3)"},
                                          {"X-CVD-Client-Version", "7"},
                                          {"X-CVD-Sender", "ZH"},
                                          {"X-CVD-Event-Map", "65535 12"},
                                          {"Accept", "application/json"},
                                          {"Content-Type", "application/json"},
                                          {"Content-Length", std::to_string(request.body.size())},
                                          {"Content-Encoding", "gzip"}}));
  EXPECT_EQ(request.body.substr(0, 2), "\x1F\x8B");
  EXPECT_LT(request.body.size(), messageOf(request).size());
}

TEST_F(PostMessageTest, HeadersOfAFlushNameNoEvent) {
  sessionInfo.set("BatchEvent", true);
  userInfo = Dictionary{};
  const auto backend = makeFor(openEntry());
  send(*backend, {{"text", std::string(200, 'a')}});
  backend->flushMessagesWithCompletion(nullptr);
  const HTTPRequest request = requests().at(0);
  EXPECT_EQ(request.headers, (HTTPHeaders{{"User-Agent", "Corvid/8.0 (Robin5,2; 12.3)"},
                                          {"X-CVD-Client-Version", "7"},
                                          {"X-CVD-Sender", "ZH"},
                                          {"Accept", "application/json"},
                                          {"Content-Type", "application/json"},
                                          {"Content-Length", std::to_string(request.body.size())},
                                          {"Content-Encoding", "gzip"}}));
}

TEST_F(PostMessageTest, WhatTheGateLeavesOfAMinuteIsForAFullQueue) {
  send(*makeFor(openEntry()), {});
  const auto patience = requests().at(0).patience;
  EXPECT_GT(patience, std::chrono::seconds(59));
  EXPECT_LE(patience, std::chrono::seconds(60));
}

TEST_F(PostMessageTest, AbsentDeviceValuesShowAsNullInTheUserAgent) {
  platform.device->remove("ProductType");
  platform.device->remove("ProductVersion");
  send(*makeFor(openEntry()), {});
  EXPECT_EQ(headerOf(requests().at(0), "User-Agent"), "Corvid/8.0 ((null); (null))");
}

TEST_F(PostMessageTest, NamesOfAnotherTypeAreNoHeaders) {
  userInfo = Dictionary{{"_clientName", 5}, {"_serviceName", true}};
  send(*makeFor(openEntry()), {});
  EXPECT_EQ(requests().at(0).headers.at(0).first, "User-Agent");
}

TEST_F(PostMessageTest, WhatWouldEndAHeaderIsABlankThereAndItselfInTheRecord) {
  using namespace std::literals;
  const std::string name = "two\r\nlines: \x01\x7f\tand\0more \xC3\xA9"s;
  const auto backend = makeFor(openEntry());
  backend->setUserInfoDict(shared(Dictionary{{"_clientName", name}, {"_serviceName", "\n"}}));
  backend->updateState();
  send(*backend, {{"x", 1}});
  ASSERT_EQ(requests().size(), 1u);
  EXPECT_EQ(headerOf(requests()[0], "X-CVD-Client-Name"), "two  lines:   \tand more \xC3\xA9");
  EXPECT_EQ(headerOf(requests()[0], "X-CVD-Service-Name"), " ");
  const Result<Value> message = parseJSON(messageOf(requests()[0]));
  const Dictionary& record = *(*arrayAt(*message.value().dictionary(), "events"))[0].dictionary();
  EXPECT_EQ(*stringAt(record, "_clientName"), name);
}

TEST_F(PostMessageTest, AMessageThatDoesNotShrinkTravelsPlain) {
  const auto backend = makeWithoutIdentifier();
  send(*backend, {});
  const HTTPRequest request = requests().at(0);
  EXPECT_EQ(request.body, R"({"postTime":1700000000.0})");
  EXPECT_EQ(headerOf(request, "Content-Length"), std::to_string(request.body.size()));
  EXPECT_EQ(headerOf(request, "Content-Encoding"), std::nullopt);
}

TEST_F(PostMessageTest, ABodyHasNoRoomToSpareWhileItsExchangeWaits) {
  // The request itself: a copy of its body would have no room in any case.
  std::size_t size = 0, capacity = 0;
  platform.http->answerWith([&](const HTTPRequest& request) {
    size = request.body.size();
    capacity = request.body.capacity();
    return FakeHTTPClient::response(200);
  });
  constexpr std::size_t alignment = 32;
  const auto backend = makeFor(openEntry());
  send(*backend, {{"text", std::string(1'000'000, 'a')}});
  EXPECT_EQ(headerOf(requests().back(), "Content-Encoding"), "gzip");
  EXPECT_GT(size, 1000u);
  EXPECT_LE(capacity, size + alignment) << "compressed";

  const auto plain = makeWithoutIdentifier();
  send(*plain, {});
  EXPECT_EQ(headerOf(requests().back(), "Content-Encoding"), std::nullopt);
  EXPECT_GT(size, 0u);
  EXPECT_LE(capacity, size + alignment) << "plain";
}

TEST_F(PostMessageTest, AMessageIsCompressedOnlyWhereThatIsShorter) {
  // Nothing but "x" stays in the record, so that messages grow byte by byte from a size that does
  // not shrink to one that does.
  Array filters{Dictionary{{"key", "x"}}};
  for (const char* key :
       {"_startTS", "_sender", "_clientVersion", "_sessionID", "_eventNumber", "_method", "_status",
        "_clientTS", "eventTime", "_productFamily", "_productModel", "_osVersion", "_build",
        "_internal", "_reportVers", "_timezoneOffset", "_clientName", "_serviceName"})
    filters.emplace_back(Dictionary{{"key", key}, {"action", "remove"}});
  const auto backend = makeFor(openEntryWith("filters", filters));
  platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
  int longer = 0, equal = 0, shorter = 0;
  for (std::size_t length = 0; length < 200; ++length) {
    send(*backend, {{"x", std::string(length, 'a')}});
    const HTTPRequest request = requests().back();
    const std::string message = messageOf(request);
    const std::size_t compressed = Compressor().gzipDeflate(message)->size();
    ++(compressed > message.size() ? longer : compressed < message.size() ? shorter : equal);
    const bool isCompressed = headerOf(request, "Content-Encoding") == "gzip";
    EXPECT_EQ(isCompressed, compressed < message.size()) << length;
    EXPECT_EQ(request.body.size(), std::min(compressed, message.size())) << length;
    EXPECT_EQ(headerOf(request, "Content-Length"), std::to_string(request.body.size())) << length;
  }
  EXPECT_GT(longer, 0);
  EXPECT_GT(equal, 0);
  EXPECT_GT(shorter, 0);
}

// Answers

TEST_F(PostMessageTest, ServerErrorsDisableTheBackendAndNothingElseDoes) {
  for (const auto& [status, state] : {std::pair{500, BackendState::disabled},
                                      {503, BackendState::disabled},
                                      {599, BackendState::disabled},
                                      {499, BackendState::sending},
                                      {600, BackendState::sending},
                                      {200, BackendState::sending},
                                      {404, BackendState::sending}}) {
    const auto backend = makeFor(openEntry());
    send(*backend, {});
    platform.log.clear();
    platform.http->completeNext(FakeHTTPClient::response(status));
    EXPECT_EQ(backend->state(), state) << status;
    const std::string line = "postJSONMessage: backend httpPost disabled by server " +
                             std::to_string(status) + " return code";
    EXPECT_EQ(platform.log.has(LogLevel::info, line), state == BackendState::disabled) << status;
    EXPECT_EQ(platform.log.lines().size(), state == BackendState::disabled ? 1u : 0u) << status;
  }
}

TEST_F(PostMessageTest, ADisabledBackendReportsAgainOnceItsStateIsComputedAnew) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  platform.http->completeNext(FakeHTTPClient::response(500));
  EXPECT_EQ(send(*backend, {}), std::nullopt);
  EXPECT_EQ(requests().size(), 1u);
  backend->updateState();
  send(*backend, {});
  EXPECT_EQ(requests().size(), 2u);
}

TEST_F(PostMessageTest, ATransportErrorIsLoggedAndChangesNothing) {
  const auto backend = makeFor(openEntry());
  send(*backend, {});
  platform.http->completeNext(FakeHTTPClient::error(7, "could not connect"));
  EXPECT_TRUE(platform.log.has(LogLevel::error,
                               "HTTPSPostBackend(postJsonMessage): post error: could not connect"));
  EXPECT_EQ(backend->state(), BackendState::sending);
  EXPECT_EQ(requests().size(), 1u) << "no retry";
}

TEST_F(PostMessageTest, WithoutAnAddressNothingIsSent) {
  const auto backend = makeFor(openEntry());
  backend->setPostURL(std::nullopt);
  EXPECT_NE(send(*backend, {}), std::nullopt) << "the log text is answered all the same";
  EXPECT_TRUE(requests().empty());
}

TEST_F(PostMessageTest, ABackendMayGoWhileItsExchangesAreUnderWay) {
  auto backend = makeFor(openEntry());
  send(*backend, {});
  send(*backend, {});
  const std::weak_ptr<HTTPSPostBackend> watched = backend;
  backend.reset();
  EXPECT_TRUE(watched.expired()) << "exchanges do not hold it";
  platform.http->completeNext(FakeHTTPClient::response(500));
  platform.http->completeNext(FakeHTTPClient::error(7, "lost"));
  EXPECT_TRUE(platform.log.has(
      LogLevel::info, "postJSONMessage: backend httpPost disabled by server 500 return code"));
}

}  // namespace
}  // namespace corvid
