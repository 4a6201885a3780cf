// The example clients, as they are built: what they say, and what of them arrives.
#include <gtest/gtest.h>
#include <signal.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Reading.h"
#include "tests/e2e/ClientProcess.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class ExampleClients : public LabFixture {
 protected:
  ToolProcess start(const std::string& name) const {
    return {"env", {"CORVID_ROOT=" + _root.path(), CORVID_EXAMPLE_PROGRAMS + ("/" + name)}};
  }
  ToolResult run(const std::string& name) const {
    ToolProcess process = start(name);
    const std::optional<int> status = process.finish();
    return {status, process.output(), process.errors()};
  }
  // Waits for the event that a client with this tag sent under category and type.
  Dictionary arrived(std::string_view sender, int category, int type) {
    Dictionary found;
    EXPECT_TRUE(waitUntil([&] {
      for (const Dictionary& record : records()) {
        if (*stringAt(record, "_sender") != sender || integerAt(record, "_method") != category ||
            integerAt(record, "_status") != type)
          continue;
        found = record;
        return true;
      }
      return false;
    })) << sender;
    return found;
  }
  // Of a client type whose sessions stand at that level of their chain.
  void publishLevel(const std::string& storebag, int level) const {
    Dictionary entry = batchesForEverybody();
    entry.set("hierarchy", level);
    publish(storebag, storebagPostingTo(urlOf("events"), entry));
  }
  // The lines up to one that ends like this; empty where that does not come.
  static std::string lineEnding(ToolProcess& process, std::string_view end) {
    while (const std::optional<std::string> line = process.readLine())
      if (line->ends_with(end)) return *line;
    return {};
  }
};

TEST_F(ExampleClients, TheShortestSendsItsEvent) {
  startDaemon();
  const ToolResult result = run("example_hello_c");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output + result.errors, "");
  EXPECT_EQ(textAt(arrived("ZH", 3, 2), "colour"), "blue");
}

TEST_F(ExampleClients, TheOneInCHearsOfItsCalls) {
  startDaemon();
  const ToolResult result = run("example_client_c");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "httpPost: sending, reporting\nevent: taken\nflush: done\n");
  const Dictionary event = arrived("ZH", 7, 2);
  EXPECT_EQ(textAt(event, "action"), "play");
  EXPECT_EQ(asNumber(event.find("position")), 12.5);
  EXPECT_EQ(textAt(event, "_clientName"), "Player");
  EXPECT_EQ(textAt(event, "_serviceName"), "Evening Film");
}

TEST_F(ExampleClients, TheOneInCPlusPlusDoesToo) {
  startDaemon();
  const ToolResult result = run("example_client_cpp");
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "httpPost: sending, reporting\nevent: taken\nflush: done\n");
  const Dictionary event = arrived("ZM", 7, 3);
  EXPECT_EQ(textAt(event, "reason"), "telephone");
  EXPECT_EQ(integerAt(event, "seconds"), 7);
  EXPECT_EQ(integerAt(event, "_clientVersion"), 3);
}

TEST_F(ExampleClients, SayWhyNothingIsReported) {
  Dictionary entry = batchesForEverybody();
  entry.set("override_dnu", 0);
  publish("lumen", storebagPostingTo(urlOf("events"), entry));
  publish("cadence", {{"version", "1"}, {"release", Dictionary{{"httpPost", Dictionary{}}}}});
  startDaemon();
  EXPECT_EQ(run("example_client_c").output,
            "httpPost: disabled, noConsent\nevent: dropped, noConsent\nflush: Nothing to flush\n");
  EXPECT_EQ(run("example_client_cpp").output,
            "no backends: noBackendMade\nevent: dropped, noBackendMade\n");
  EXPECT_TRUE(records().empty());
}

TEST_F(ExampleClients, SayThatThereIsNoDaemon) {
  for (const auto& [program, name] :
       {std::pair("example_hello_c", "hello"), std::pair("example_client_c", "client"),
        std::pair("example_client_cpp", "client")}) {
    const ToolResult result = run(program);
    EXPECT_EQ(result.status, 1) << program;
    EXPECT_EQ(result.errors, std::string(name) + ": daemon cannot be reached\n");
  }
}

TEST_F(ExampleClients, SayThatTheyLostTheirConnection) {
  _root.remove("etc/corvid/entitlements.d/lab.plist");
  startDaemon();
  const ToolResult inC = run("example_client_c");
  EXPECT_EQ(inC.status, 1);
  EXPECT_EQ(inC.output, "start: connection lost\nevent: connection lost\nflush: connection lost\n");
  const ToolResult inCPlusPlus = run("example_client_cpp");
  EXPECT_EQ(inCPlusPlus.status, 1);
  EXPECT_EQ(inCPlusPlus.output, "event: connection lost\nflush: connection lost\n");
}

TEST_F(ExampleClients, TheEventLoopGoesOnWithoutADaemonAndFindsTheOneThatComes) {
  ToolProcess client = start("example_event_loop_c");
  EXPECT_EQ(client.readLine(), "later: daemon cannot be reached");
  startDaemon();
  EXPECT_EQ(client.finish(), 0) << client.errors();
  EXPECT_TRUE(client.output().ends_with("connected\n")) << client.output();
  std::vector<std::int64_t> ticks;
  for (const Dictionary& record : records())
    if (const auto tick = integerAt(record, "tick")) ticks.push_back(*tick);
  EXPECT_EQ(ticks, (std::vector<std::int64_t>{0, 1, 2}));
}

TEST_F(ExampleClients, TheAggregatorSeesTheMessagesOfItsChain) {
  publishLevel("tessel", 0);
  publishLevel("lumen", 1);
  startDaemon();
  ToolProcess aggregator = start("example_aggregator_c");
  const std::optional<std::string> own = aggregator.readLine();
  ASSERT_TRUE(own);
  EXPECT_NE(own->find(" client type 6: 0 0 "), own->npos) << *own;
  EXPECT_EQ(run("example_client_c").status, 0);
  EXPECT_NE(lineEnding(aggregator,
                       "client type 5: 7 2 action=play position=... _clientName=Player "
                       "_serviceName=Evening Film"),
            "");
  aggregator.signal(SIGTERM);
  EXPECT_EQ(aggregator.finish(), 0) << aggregator.errors();
}

TEST_F(ExampleClients, TheAggregatorComesBackToADaemonThatWasRestarted) {
  ToolProcess aggregator = start("example_aggregator_c");
  for (int i = 0; i < 2; ++i) {
    startDaemon();
    const std::optional<std::string> line = aggregator.readLine();
    ASSERT_TRUE(line);
    EXPECT_NE(line->find(" client type 6: 0 0 "), line->npos) << *line;
    _daemon->signal(SIGKILL);
    EXPECT_EQ(_daemon->waitForExit(), -SIGKILL);
  }
  aggregator.signal(SIGINT);
  EXPECT_EQ(aggregator.finish(), 0) << aggregator.errors();
}

TEST_F(ExampleClients, TheAggregatorLeavesWhereSomebodyAboveItAggregates) {
  publishLevel("tessel", 1);
  publishLevel("lumen", 0);
  startDaemon();
  ToolProcess aggregator = start("example_aggregator_c");
  ASSERT_TRUE(aggregator.readLine());
  ClientProcess above(_root.path());
  above.call({{"call", "setSessionInfo"},
              {"sessionInfo", Dictionary{{"ClientType", 5}, {"RequireUserInfo", true}}},
              {"userInfo", Dictionary{{"_clientName", "Player"}, {"_serviceName", "Evening Film"}}},
              {"hasAggregationBlock", true}});
  above.call({{"call", "startConfig"}});
  EXPECT_EQ(aggregator.finish(), 0) << aggregator.errors();
}

}  // namespace
}  // namespace corvid
