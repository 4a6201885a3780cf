// Real events from the real client through the real daemon, in its sandbox, to real servers.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/landlock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using testing::_;
using testing::ElementsAre;
using testing::Pair;

constexpr const char* describe =
    R"({"call":"setSessionInfo","sessionInfo":{"ClientType":5,"ClientVersion":3,"SessionID":42,"RequireUserInfo":true,"BatchEvent":true},"userInfo":{"_clientName":"Player","_serviceName":"Film"}})";
constexpr const char* startConfig = R"({"call":"startConfig"})";
constexpr const char* flush = R"({"call":"flush"})";
constexpr const char* play =
    R"({"call":"sendMessage","category":7,"type":2,"payload":{"action":"play","account":"alice","secret":"hidden"}})";

class Events : public LabFixture {
 protected:
  // Makes the calls in one session and returns what corvidctl printed, line by line.
  std::vector<std::string> session(const std::vector<std::string>& calls) {
    std::string input;
    for (const std::string& call : calls) input.append(call).append("\n");
    return linesOf(runTool(CORVIDCTL_PROGRAM, {"--root", _root.path(), "session"}, input).output);
  }
};

TEST_F(Events, ABatchArrivesFilteredWithStartAndEndMessages) {
  startDaemon();
  const auto lines = session({describe, startConfig, play, flush});
  EXPECT_EQ(lines, (std::vector<std::string>{R"({"call":"setSessionInfo"})",
                                             R"({"call":"startConfig","states":["httpPost"]})",
                                             R"({"call":"sendMessage","result":null})",
                                             R"({"call":"flush","result":null,"error":null})"}));
  ASSERT_TRUE(waitUntil([&] { return records().size() == 3; })) << _daemon->standardError();
  const auto arrived = records();
  EXPECT_EQ(integerAt(arrived[0], "_method"), 0);  // the start message
  EXPECT_TRUE(arrived[0].contains("AutomaticTimeSet"));
  EXPECT_EQ(*stringAt(arrived[1], "action"), "play");
  EXPECT_EQ(stringAt(arrived[1], "account")->size(), 64u);
  EXPECT_FALSE(arrived[1].contains("secret"));
  EXPECT_EQ(*stringAt(arrived[1], "_clientName"), "Player");
  EXPECT_EQ(*stringAt(arrived[2], "StorebagVersion"), "1.0.0-lumen");  // the end message
  const auto posts = received();
  const Dictionary& headers = *dictionaryAt(posts.at(0), "headers");
  EXPECT_EQ(*stringAt(headers, "X-CVD-Sender"), "ZH");
  EXPECT_EQ(*stringAt(headers, "Content-Encoding"), "gzip");
}

TEST_F(Events, ARealtimeEventOvertakesNothing) {
  startDaemon();
  session({describe, startConfig, play,
           R"({"call":"sendMessageWithDictionary","message":{"Category":8,"Type":2,"Flag":1}})"});
  ASSERT_TRUE(waitUntil([&] { return records().size() == 4; }));
  // Posts may cross on their way; each says when it was made.
  std::map<double, std::string> posts;
  for (const Dictionary& entry : received()) {
    const Dictionary& message = *dictionaryAt(entry, "message");
    std::string& post = posts[*asNumber(message.find("postTime"))];
    post = *stringAt(entry, "server");
    for (const Value& record : *arrayAt(message, "events"))
      post += fmt::format(" {}/{}", *integerAt(*record.dictionary(), "_method"),
                          *integerAt(*record.dictionary(), "_status"));
  }
  EXPECT_THAT(posts, ElementsAre(Pair(_, "events 0/0 7/2"), Pair(_, "realtime 8/2"),
                                 Pair(_, "events 0/1")));
}

TEST_F(Events, AServerErrorDisablesTheBackend) {
  startDaemon();
  plan("events", {{"status", 503}});
  const auto lines = session({describe, startConfig, play, flush, play, flush});
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[3],
            R"({"call":"flush","result":null,"error":{"domain":"com.halcyon.corvid.error",)"
            R"("code":503,"description":"backend httpPost disabled by server 503 return code"}})");
  EXPECT_NE(lines[5].find("Nothing to flush"), std::string::npos);
}

TEST_F(Events, ATamperedStorebagIsRefusedAndNothingLeaves) {
  plan("storebags", {{"times", -1}, {"corrupt", true}});
  startDaemon();
  const auto lines = session({describe, startConfig, play});
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], R"({"call":"startConfig","states":null})");
  EXPECT_EQ(lines[2], R"({"call":"sendMessage","result":null})");
  EXPECT_TRUE(_daemon->waitForLog("fetchAndCacheStorebag: Unable to fetch storebag"));
  EXPECT_TRUE(received().empty());
}

TEST_F(Events, AFailedFetchIsNotRepeatedAtOnce) {
  plan("storebags", {{"times", -1}, {"status", 500}});
  startDaemon();
  session({describe, startConfig});
  const std::size_t asked = _lab.storebags().requestsReceived();
  session({describe, startConfig});
  EXPECT_EQ(_lab.storebags().requestsReceived(), asked);
  EXPECT_TRUE(_daemon->waitForLog(
      "storebagForSession: Not fetching storebag for client type 5 - must wait 900 seconds"));
}

TEST_F(Events, ASecondSessionUsesTheCachedStorebag) {
  startDaemon();
  session({describe, startConfig});
  session({describe, startConfig});
  EXPECT_EQ(_lab.storebags().requestsReceived(), 1u);
  EXPECT_TRUE(_daemon->waitForLog("storebagForSession: Cached storebag found for client type 5"));
}

TEST_F(Events, ASingleMessageIsAnsweredOrNotAsItsIdentifiersSay) {
  // Sent at once: what the backends of a single message hold goes with them.
  const Dictionary entry{{"post_url", "${events}"}, {"expedite", 1}};
  const Dictionary section{{"httpPost", Dictionary{{"clients", Array{entry}}}}};
  publish("lumen", {{"version", "2"}, {"release", section}});
  startDaemon();
  const auto lines = session(
      {R"({"call":"sendSingleMessage","sessionInfo":{"SessionID":1},"category":1,"type":2})",
       R"({"call":"sendSingleMessage","sessionInfo":{"ClientType":5,"SessionID":7},"category":1,"type":2,"payload":{"single":1}})",
       R"({"call":"sendSingleMessage","sessionInfo":{"ClientType":3,"SessionID":7},"category":1,"type":2})"});
  EXPECT_EQ(lines, (std::vector<std::string>{
                       R"({"call":"sendSingleMessage","answered":false})",
                       R"({"call":"sendSingleMessage","result":"finished"})",
                       R"({"call":"sendSingleMessage","result":"storebag not available"})"}));
  ASSERT_TRUE(waitUntil([&] { return records().size() == 1; }));
  EXPECT_EQ(integerAt(records()[0], "single"), 1);
}

TEST_F(Events, LinesThatCannotBeUsedAreNamedAndTheNextIsRead) {
  startDaemon();
  const auto lines = session({"nonsense", R"({"call":"dance"})",
                              R"({"call":"sendMessage","category":65536,"type":1})",
                              R"({"call":"fetchDisplayURL"})"});
  ASSERT_EQ(lines.size(), 4u);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(lines[static_cast<std::size_t>(i)].find("{\"error\":"), 0u);
  EXPECT_EQ(lines[3], R"({"call":"fetchDisplayURL","url":"URL not available"})");
}

TEST_F(Events, AClientOutsideTheCountryListReportsNothing) {
  const Dictionary entry{{"post_url", "${events}"},
                         {"override_dnu", 1},
                         {"locale_whitelist", Array{}},
                         {"filters", Array{}},
                         {"sampling_threshold", 1.0}};
  const Dictionary section{{"httpPost", Dictionary{{"clients", Array{entry}}}}};
  publish("lumen", {{"version", "2"}, {"release", section}});
  ASSERT_EQ(setenv("LANG", "de_DE.UTF-8", 1), 0);
  startDaemon();
  unsetenv("LANG");
  const auto lines = session({describe, startConfig, play, flush});
  EXPECT_EQ(lines.at(1), R"({"call":"startConfig","states":[]})");
  EXPECT_TRUE(_daemon->waitForLog(
      "HTTPSPostBackend(updateBackendState): (DE) isn't in country code list []"));
  EXPECT_TRUE(received().empty());
}

// The deployment's own server is reached all the same.
TEST_F(Events, ReachOnlyPortsThatTheDeploymentNames) {
  if (syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION) < 4)
    GTEST_SKIP() << "this kernel's Landlock knows no ports";
  const auto startNaming = [&](const Array& ports) {
    Dictionary deployment = readDictionaryFile(_root.path("etc/corvid/deployment.plist")).value();
    deployment.set("TCPPorts", ports);
    _root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
    startDaemon();
  };
  const auto report = [&](const std::string& mark) {
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({}).text(), "httpPost");
    EXPECT_EQ(client.send(mark).text(), "none");
  };
  publish("lumen", storebagPostingTo(urlOf("events")));
  startNaming({});
  report("refused");
  EXPECT_TRUE(_daemon->waitForLog("HTTPSPostBackend(postJsonMessage): post error: "));
  EXPECT_EQ(arrivals("refused"), 0u);

  _daemon.reset();
  const std::string url = urlOf("events");
  startNaming({std::stoi(url.substr(url.rfind(':') + 1))});
  report("welcome");
  EXPECT_TRUE(waitUntil([&] { return arrivals("welcome") == 1; }));
  EXPECT_EQ(arrivals("refused"), 0u);
}

}  // namespace
}  // namespace corvid
