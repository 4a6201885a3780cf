// What corvid-storebag says of a device that the daemon describes is what the daemon does, seen
// over its sockets and at the collector.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "protocol/Keys.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/support/Waiting.h"
#include "tests/tools/storebag/RandomPolicies.h"

namespace corvid {
namespace {

class PolicyOfTheDaemon : public LabFixture, protected Operator {
 protected:
  static constexpr int clientType = 6;
  static constexpr std::size_t clients = 48;

  PolicyOfTheDaemon() : Operator(_root.path()) {
    setenv("LANG", "de_DE.UTF-8", 1);
    for (const char* const name : {"LC_ALL", "LC_MESSAGES"}) unsetenv(name);
  }
  ~PolicyOfTheDaemon() override { unsetenv("LANG"); }

  static std::string nameOf(std::size_t client) { return fmt::format("Client{}", client); }

  // Generated entries, one for each client. No draw decides: every threshold lets all or none pass.
  Dictionary storebag() const {
    Array entries;
    for (unsigned seed = 1; entries.size() < clients; ++seed) {
      const Dictionary storebag = RandomPolicies(seed).storebag();
      const Dictionary* const section = dictionaryAt(storebag, "release");
      const Dictionary* const profile = section ? dictionaryAt(*section, "httpPost") : nullptr;
      const Array* const generated = profile ? arrayAt(*profile, "clients") : nullptr;
      if (generated == nullptr) continue;
      for (const Value& each : *generated)
        if (each.dictionary() && entries.size() < clients)
          entries.push_back(forOne(*each.dictionary(), entries.size()));
    }
    return {{"version", "1"},
            {"refresh_cycle", 3600},
            {"release", Dictionary{{"httpPost", Dictionary{{"clients", entries}}}}}};
  }

  // The device as the daemon sees it, and a client, as the tool takes them.
  static std::string facts(const Dictionary& status, std::size_t client, bool batches) {
    Dictionary facts;
    for (const auto& [key, answer] : *dictionaryAt(status, "device"))
      facts.set(key, *answer.dictionary()->find("value"));
    facts.set("userInfo", Dictionary{{std::string(kCorvidUserInfoClientName), nameOf(client)},
                                     {std::string(kCorvidUserInfoServiceName), "Service"}});
    facts.set("sessionInfo", Dictionary{{std::string(kCorvidSessionInfoClientVersion), 3},
                                        {std::string(kCorvidSessionInfoSessionID), 42},
                                        {std::string(kCorvidSessionInfoBatchEvent), batches},
                                        {std::string(kCorvidSessionInfoRequireUserInfo), true}});
    return *writeJSON(facts);
  }

  Dictionary toolsWord(const std::string& facts, const std::string& mark) const {
    const ToolResult result = runTool(
        CORVID_STOREBAG_PROGRAM,
        {"explain", _root.path("lab/storebags/tessel.plist"), "--client-type",
         std::to_string(clientType), "--facts", facts, "--event",
         fmt::format(R"({{"category":7,"type":2,"payload":{{"mark":"{}"}}}})", mark), "--json"});
    EXPECT_EQ(result.status, 0) << result.errors;
    return objectIn(result.output);
  }

  // What the daemon decided of the session's event, by its latest word.
  Dictionary decision(std::int64_t session) const {
    for (const Dictionary& line : explain({"--session", std::to_string(session)}))
      if (integerAt(line, "category") == 7) return backendOf(line);
    return {};
  }

  Dictionary arrived(const std::string& mark) {
    for (const Dictionary& record : records())
      if (const std::string* const text = stringAt(record, "mark"); text && *text == mark)
        return record;
    return {};
  }

 private:
  Dictionary forOne(Dictionary entry, std::size_t client) const {
    const auto decide = [](Dictionary& in, const char* key) {
      if (const auto number = asNumber(in.find(key))) in.set(key, *number < 0.5 ? -1.0 : 1.0);
    };
    entry.set("client", nameOf(client));
    entry.erase("service");
    decide(entry, "sampling_threshold");
    decide(entry, "override_sampling");
    entry.erase("per_country_sampling_thresholds");
    if (entry.contains("post_url")) entry.set("post_url", urlOf("events"));
    if (entry.contains("realtime_post_url")) entry.set("realtime_post_url", urlOf("realtime"));
    if (client % 2 == 0) entry.set("override_dnu", 1);
    return entry;
  }
};

TEST_F(PolicyOfTheDaemon, IsWhatTheToolSays) {
  publish("tessel", storebag());
  _root.remove("usr/share/corvid/Info.plist");  // no fact tells of the client library's version
  startDaemon();
  const Dictionary status = this->status();
  std::list<TestClient> connected;
  std::size_t delivered = 0;
  std::size_t held = 0;
  std::size_t dropped = 0;
  for (std::size_t at = 0; at < clients; ++at) {
    const std::string name = nameOf(at);
    SCOPED_TRACE(name);
    const bool batches = at % 3 == 0;
    const Dictionary tool = toolsWord(facts(status, at, batches), name);
    const Dictionary& backend = backendOf(tool);
    const Dictionary& event = backendOf(*dictionaryAt(tool, "event"));

    TestClient& client = connected.emplace_back(_root.path());
    client.configure({.clientType = clientType, .batches = batches, .clientName = name}).text();
    const std::vector<Dictionary> all = sessions();
    const auto session = std::ranges::find_if(
        all, [&](const Dictionary& one) { return *one.find("clientName") == Value(name); });
    ASSERT_NE(session, all.end());
    for (const char* const key : {"state", "reason", "entry"})
      EXPECT_EQ(*backendOf(*session).find(key), *backend.find(key)) << key;

    client.send(name).text();
    const std::int64_t number = *integerAt(*session, "session");
    const std::string wanted = *stringAt(event, "outcome");
    const bool isPosted = wanted == "underWay";  // and the collector takes it
    EXPECT_TRUE(waitUntil([&] {
      return *stringAt(decision(number), "outcome") == (isPosted ? "delivered" : wanted);
    })) << *stringAt(decision(number), "outcome");
    EXPECT_EQ(*decision(number).find("reason"), *event.find("reason"));
    (isPosted ? delivered : wanted == "held" ? held : dropped) += 1;
    if (wanted == "held" && *stringAt(backend, "state") == "sending") client.flush().text();
    const std::string* const address = stringAt(event, "address");
    if (!address || (wanted == "held" && *stringAt(backend, "state") != "sending")) continue;
    EXPECT_EQ(*address, urlOf("events"));
    EXPECT_TRUE(waitUntil([&] { return arrivals(name) == 1; }));
    Dictionary record = arrived(name);
    for (const char* const key :
         {"_startTS", "_clientTS", "eventTime", "_sessionID", "_eventNumber"})
      record.erase(key);
    const Dictionary& said = *dictionaryAt(event, "record");
    EXPECT_EQ(record, said) << *writeJSON(record) << "\n" << *writeJSON(said);
  }
  EXPECT_GE(delivered, 3u);
  EXPECT_GE(held, 3u);
  EXPECT_GE(dropped, 10u);
}

}  // namespace
}  // namespace corvid
