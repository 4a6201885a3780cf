// What an operator sees of the real daemon through the real corvidctl.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "base/Reading.h"
#include "protocol/Limits.h"
#include "protocol/Reason.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/AsStranger.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::IsEmpty;

class Control : public LabFixture, protected Operator {
 protected:
  Control() : Operator(_root.path()) {}
  // Connects with this address, as it is.
  RawClient connect() const { return RawClient(_root.path("run/corvidd/control")); }
};

TEST_F(Control, StatusTellsWhatTheDaemonIsAndSeesAndDid) {
  startDaemon();
  admitBystander();
  ASSERT_TRUE(bystanderReports());
  const Dictionary status = this->status();
  EXPECT_EQ(*stringAt(status, "version"), CORVID_VERSION);
  EXPECT_EQ(integerAt(status, "pid"), _daemon->pid());
  EXPECT_GT(*asNumber(status.find("uptimeSeconds")), 0);
  EXPECT_EQ(*stringAt(status, "sandbox"), "enforced");
  EXPECT_EQ(*stringAt(status, "logLevel"), "debug");
  EXPECT_EQ(integerAt(status, "sessions"), 1);

  const Dictionary& bag = *arrayAt(status, "storebags")->at(0).dictionary();
  EXPECT_EQ(*stringAt(bag, "name"), "tessel");
  EXPECT_EQ(*stringAt(bag, "state"), "valid");
  EXPECT_THAT(*stringAt(bag, "url"), HasSubstr("/tessel?version="));
  EXPECT_TRUE(stringAt(bag, "version"));
  EXPECT_EQ(stringAt(bag, "keyID")->size(), 16u);
  EXPECT_LT(*asNumber(bag.find("ageSeconds")), 60);
  EXPECT_GT(*asNumber(bag.find("expiresInSeconds")), 0);
  EXPECT_EQ(*asNumber(bag.find("nextAttemptInSeconds")), 0);
  EXPECT_TRUE(bag.find("lastError")->isNull());

  const Dictionary& ledger = *dictionaryAt(status, "ledger");
  EXPECT_GT(*integerAt(ledger, "delivered"), 0);
  EXPECT_TRUE(adds(ledger));
  const Dictionary& host = *arrayAt(status, "hosts")->at(0).dictionary();
  EXPECT_THAT(*stringAt(host, "host"), testing::StartsWith("localhost:"));
  EXPECT_EQ(integerAt(host, "delivered"), integerAt(ledger, "delivered"));
  EXPECT_EQ(integerAt(host, "failed"), 0);
  EXPECT_LT(*asNumber(host.find("lastSuccessSecondsAgo")), 60);
  EXPECT_TRUE(host.find("lastFailure")->isNull());
  EXPECT_EQ(
      integerAt(*dictionaryAt(*dictionaryAt(status, "connections"), "refused"), "notEntitled"), 0);
}

TEST_F(Control, SessionsTellsWhoIsConnectedAndWhatEachBackendDoes) {
  publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
  startDaemon();
  TestClient silent(_root.path());
  ASSERT_TRUE(silent.session().connect());
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true, .clientName = "Player"}).text(), "httpPost");
  client.send("one").text();
  const auto sessions = this->sessions();
  ASSERT_EQ(sessions.size(), 2u);
  EXPECT_EQ(integerAt(sessions[0], "session"), 1);
  EXPECT_EQ(*stringAt(sessions[0], "reason"), "noSessionInfo");
  EXPECT_TRUE(arrayAt(sessions[0], "backends")->empty());

  const Dictionary& its = sessions[1];
  EXPECT_EQ(integerAt(its, "session"), 2);
  EXPECT_EQ(integerAt(its, "pid"), getpid());
  EXPECT_EQ(integerAt(its, "uid"), static_cast<std::int64_t>(getuid()));
  EXPECT_TRUE(its.contains("unit"));
  EXPECT_EQ(integerAt(its, "clientType"), 5);
  EXPECT_EQ(*stringAt(its, "clientTag"), "ZH");
  EXPECT_EQ(*stringAt(its, "clientName"), "Player");
  EXPECT_EQ(*stringAt(its, "serviceName"), "Service");
  EXPECT_EQ(integerAt(its, "level"), 0);
  EXPECT_TRUE(its.find("parent")->isNull());
  EXPECT_EQ(booleanAt(its, "aggregates"), false);
  EXPECT_TRUE(its.find("reason")->isNull());
  EXPECT_TRUE(stringAt(its, "storebagVersion"));
  const Dictionary& backend = backendOf(its);
  EXPECT_EQ(*stringAt(backend, "name"), "httpPost");
  EXPECT_EQ(*stringAt(backend, "state"), "sending");
  EXPECT_EQ(*stringAt(backend, "reason"), "reporting");
  EXPECT_EQ(integerAt(backend, "entry"), 0);
  EXPECT_EQ(integerAt(backend, "held"), 2) << "the start message and the event";
  EXPECT_GT(*integerAt(backend, "heldBytes"), 0);
  EXPECT_TRUE(adds(*dictionaryAt(backend, "ledger")));

  EXPECT_EQ(this->sessions({"2"}).size(), 1u);
  EXPECT_EQ(this->sessions({"77"}).size(), 0u) << "no session has that number";
}

TEST_F(Control, ExplainShowsEachEventAsItStandsNow) {
  Dictionary entries = batchesForEverybody();
  entries.set("filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                               Dictionary{{"key", "account"}, {"action", "sha256"}}});
  publish("lumen", storebagPostingTo(urlOf("events"), entries));
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true, .clientName = "Player"}).text(), "httpPost");
  client::Dictionary payload;
  EXPECT_TRUE(payload.set("secret", "x"));
  EXPECT_TRUE(payload.set("account", "y"));
  client.send(payload).text();
  auto decisions = explain({"--last", "1"});
  ASSERT_EQ(decisions.size(), 1u);
  EXPECT_EQ(integerAt(decisions[0], "event"), 2);
  EXPECT_EQ(integerAt(decisions[0], "session"), 1);
  EXPECT_EQ(integerAt(decisions[0], "category"), 7);
  EXPECT_EQ(*stringAt(backendOf(decisions[0]), "outcome"), "held");
  EXPECT_EQ(*stringAt(backendOf(decisions[0]), "reason"), "reporting");
  EXPECT_EQ(*arrayAt(backendOf(decisions[0]), "removed"), Array{"secret"});
  EXPECT_EQ(*arrayAt(backendOf(decisions[0]), "digested"), Array{"account"});
  EXPECT_TRUE(backendOf(decisions[0]).find("post")->isNull());

  client.flush().text();
  decisions = explain();
  ASSERT_EQ(decisions.size(), 3u);
  EXPECT_EQ(*stringAt(backendOf(decisions[1]), "outcome"), "delivered");
  EXPECT_EQ(integerAt(backendOf(decisions[1]), "post"), 1);
  const Dictionary& post = decisions[2];
  EXPECT_EQ(integerAt(post, "post"), 1);
  EXPECT_EQ(*stringAt(post, "backend"), "httpPost");
  EXPECT_EQ(integerAt(post, "events"), 2);
  EXPECT_GT(*integerAt(post, "bytes"), 0);
  EXPECT_EQ(integerAt(post, "status"), 200);
  EXPECT_GT(*asNumber(post.find("milliseconds")), 0);
  EXPECT_TRUE(post.find("error")->isNull());
  EXPECT_THAT(explain({"--session", "9"}), IsEmpty());
}

TEST_F(Control, TapPrintsALineWhenAnOutcomeIsDecided) {
  publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
  startDaemon();
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true}).text(), "httpPost");
  ToolProcess tap(CORVIDCTL_PROGRAM, {"--root", _root.path(), "tap", "--json", "--payload"});
  // The first line that comes shows that it watches.
  ASSERT_TRUE(waitUntil([&] {
    client.send("again").text();
    return tap.readLine(milliseconds(100)).has_value();
  }));
  client.send("marked").text();
  client.flush().text();
  bool sawRecord = false;
  bool sawDelivery = false;
  bool sawPost = false;
  while (!sawPost) {
    const auto line = tap.readLine();
    ASSERT_TRUE(line);
    const Dictionary decision = objectIn(*line);
    if (decision.contains("event")) {
      const Dictionary& backend = backendOf(decision);
      const Dictionary* const record = dictionaryAt(backend, "record");
      const std::string* const mark = record ? stringAt(*record, "mark") : nullptr;
      sawRecord = sawRecord || (mark && *mark == "marked");
      sawDelivery = sawDelivery || *stringAt(backend, "outcome") == "delivered";
    } else {
      sawPost = integerAt(decision, "status") == 200;
    }
  }
  EXPECT_TRUE(sawRecord);
  EXPECT_TRUE(sawDelivery);
  tap.kill();
}

TEST_F(Control, TapEndsAfterItsTime) {
  startDaemon();
  const auto start = steady_clock::now();
  EXPECT_EQ(ctl({"tap", "--for", "1"}).status, 0);
  EXPECT_GE(steady_clock::now() - start, milliseconds(900));
}

TEST_F(Control, MetricsNameEveryReasonFromTheStart) {
  startDaemon();
  const std::string text = ctl({"metrics"}).output;
  for (const ReasonText& reason : reasonTexts) {
    if (reason.reason == Reason::reporting) continue;
    for (const char* const name : {"corvid_events_dropped_total", "corvid_sessions_silent_total",
                                   "corvid_connections_refused_total"})
      EXPECT_THAT(text, HasSubstr(fmt::format("{}{{reason=\"{}\"}} 0\n", name, reason.word)));
  }
  for (const char* const kind :
       {"resolve", "connect", "tls", "timeout", "closed", "tooLarge", "queueFull", "other"})
    EXPECT_THAT(text,
                HasSubstr(fmt::format("corvid_events_failed_total{{kind=\"{}\"}} 0\n", kind)));
  for (const char* const line :
       {"corvid_events_accepted_total 0\n", "corvid_events_held 0\n", "corvid_events_under_way 0\n",
        "corvid_sessions 0\n", "corvid_tap_lines_lost_total 0\n"})
    EXPECT_THAT(text, HasSubstr(line));
  EXPECT_TRUE(text.ends_with("# EOF\n"));
}

TEST_F(Control, RefreshMakesTheNextRequestFetchAndNamesWhatItTouched) {
  startDaemon();
  admitBystander();
  constexpr const char* fetching = "fetchAndCacheStorebag: Fetching storebag for client type 6";
  TestClient second(_root.path());
  second.configure({.clientType = 6}).text();
  EXPECT_EQ(timesLogged(fetching), 1u) << "the cache serves it";
  EXPECT_EQ(ctl({"refresh", "--client-type", "6"}).output, "tessel\n");
  TestClient third(_root.path());
  third.configure({.clientType = 6}).text();
  EXPECT_EQ(timesLogged(fetching), 2u);
  EXPECT_EQ(timesLogged("Adding 'Last-Modified:"), 1u) << "conditional";
  EXPECT_EQ(ctl({"refresh", "--client-type", "3"}).status, 64) << "it has no storebag";
}

TEST_F(Control, RefreshForgetsThePauseAfterAFailure) {
  plan("storebags", {{"status", 503}});
  startDaemon();
  TestClient first(_root.path());
  EXPECT_EQ(first.configure({.clientType = 6}).text(), "none");
  EXPECT_EQ(*stringAt(sessions().at(0), "reason"), "storebagMalformed");
  const Dictionary bag = *arrayAt(status(), "storebags")->at(0).dictionary();
  EXPECT_EQ(*stringAt(bag, "state"), "failed");
  EXPECT_THAT(*stringAt(bag, "lastError"), HasSubstr("storebagMalformed: status 503"));
  EXPECT_GT(*asNumber(bag.find("nextAttemptInSeconds")), 800);
  EXPECT_EQ(first.configure({.clientType = 6}).text(), "none") << "it pauses";
  EXPECT_EQ(ctl({"refresh"}).output, "tessel\n");
  const Dictionary refreshed = *arrayAt(status(), "storebags")->at(0).dictionary();
  EXPECT_EQ(*asNumber(refreshed.find("nextAttemptInSeconds")), 0);
  EXPECT_NE(first.configure({.clientType = 6}).text(), "none");
}

TEST_F(Control, TheStorebagInForceIsShownAsTheDaemonReadsIt) {
  startDaemon();
  EXPECT_EQ(ctl({"storebag"}).status, 1) << "none is in force yet";
  const Dictionary published = storebagPostingTo(urlOf("events"), batchesForEverybody());
  publish("lumen", published);
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true}).text(), "httpPost");

  const ToolResult text = ctl({"storebag", "lumen"});
  EXPECT_EQ(text.status, 0) << text.errors;
  EXPECT_THAT(text.output, testing::StartsWith("lumen "));
  EXPECT_THAT(text.output, testing::ContainsRegex(", key [0-9a-f]{16}, [0-9]+ s old\n<\\?xml"));
  EXPECT_THAT(text.output, HasSubstr(urlOf("events")));

  const Dictionary storebag = objectIn(ctl({"storebag", "--json"}).output);
  EXPECT_EQ(*stringAt(storebag, "name"), "lumen");
  EXPECT_TRUE(dictionaryAt(*dictionaryAt(storebag, "content"), "httpPost"));
  const ToolResult other = ctl({"storebag", "tessel"});
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output, "");
  EXPECT_THAT(other.errors, HasSubstr("no storebag tessel is in force"));
}

TEST_F(Control, StorebagsAreShownToRootOnly) {
  if (getuid() != 0) GTEST_SKIP() << "only the superuser can be somebody else";
  ASSERT_EQ(chmod(_root.path().c_str(), 0755), 0);
  _root.write("etc/corvid/entitlements.d/looker.plist",
              "<plist><dict><key>match</key><dict><key>user</key><integer>65534</integer></dict>"
              "<key>entitlements</key><dict>"
              "<key>com.halcyon.private.corvidd.control</key><true/></dict></dict></plist>");
  startDaemon();
  publish("lumen", storebagPostingTo(urlOf("events"), batchesForEverybody()));
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.batches = true}).text(), "httpPost");
  ToolResult result;
  {
    const AsStranger stranger;
    result = ctl({"storebag", "lumen"});
  }
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "");
  EXPECT_THAT(result.errors, HasSubstr("storebags are shown to user 0 only"));
}

TEST_F(Control, RefreshOfStatesComputesThemAnew) {
  startDaemon();
  admitBystander();
  constexpr const char* computed = "resetBackendStateWithClient: event_threshold set to";
  const std::size_t before = timesLogged(computed);
  EXPECT_EQ(ctl({"refresh", "--states"}).output, "tessel\nsession 1\n");
  EXPECT_TRUE(waitUntil([&] { return timesLogged(computed) > before; }));
}

TEST_F(Control, TheLogLevelComesBackAfterItsTime) {
  startDaemon();
  EXPECT_EQ(ctl({"log-level", "error", "--for", "1"}).status, 0);
  EXPECT_EQ(*stringAt(status(), "logLevel"), "error");
  EXPECT_TRUE(waitUntil([&] { return *stringAt(status(), "logLevel") == "debug"; }));
  EXPECT_EQ(ctl({"log-level", "warning"}).status, 0);
  EXPECT_EQ(*stringAt(status(), "logLevel"), "warning");
  EXPECT_EQ(ctl({"log-level", "loud"}).status, 64);
}

TEST_F(Control, WithoutADaemonEachCommandSaysSoInOneLine) {
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"status"},
                                             {"sessions"},
                                             {"explain"},
                                             {"tap"},
                                             {"top"},
                                             {"metrics"},
                                             {"refresh"},
                                             {"log-level", "info"},
                                             {"status", "--json"}}) {
    const ToolResult result = ctl(command);
    EXPECT_EQ(result.status, 1) << command[0];
    EXPECT_EQ(result.output, "") << command[0];
    EXPECT_EQ(linesOf(result.errors).size(), 1u) << result.errors;
  }
}

TEST_F(Control, WrongArgumentsEndWith64) {
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"status", "--wide"},
                                             {"sessions", "none"},
                                             {"explain", "--last", "-1"},
                                             {"tap", "--for", "soon"},
                                             {"log-level"}})
    EXPECT_EQ(ctl(command).status, 64) << command[0];
}

TEST_F(Control, APeerThatMayNotLookIsClosedAndCounted) {
  if (getuid() != 0) GTEST_SKIP() << "only the superuser can be somebody else";
  ASSERT_EQ(chmod(_root.path().c_str(), 0755), 0);
  startDaemon();
  {
    const AsStranger other;
    RawClient client = connect();
    EXPECT_TRUE(client.awaitClosed());
  }
  EXPECT_TRUE(_daemon->waitForLog(
      "control: connection 1 may not use the control socket. Closing connection..."));
  const Dictionary status = this->status();
  const Dictionary& refused = *dictionaryAt(*dictionaryAt(status, "connections"), "refused");
  EXPECT_EQ(integerAt(refused, "controlNotEntitled"), 1);
}

TEST_F(Control, AnswersWhileAFetchHangsAndAClientIsStuck) {
  plan("storebags", {{"silent", true}});
  startDaemon();
  TestClient hanging(_root.path());
  const auto outcome = hanging.configure({.clientType = 6});
  ASSERT_TRUE(waitUntil([&] {
    const Dictionary status = this->status();
    const Array& bags = *arrayAt(status, "storebags");
    return !bags.empty() && *stringAt(*bags[0].dictionary(), "state") == "fetching";
  }));
  const auto start = steady_clock::now();
  EXPECT_EQ(sessions().size(), 1u);
  EXPECT_EQ(*stringAt(sessions().at(0), "reason"), "notConfigured");
  EXPECT_EQ(ctl({"metrics"}).status, 0);
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(outcome.isThere());
}

TEST_F(Control, ConnectionsPastTheirLimitAreClosed) {
  startDaemon();
  std::list<RawClient> clients;
  for (std::size_t i = 0; i < limits::controlConnections; ++i) clients.push_back(connect());
  RawClient tooMany = connect();
  EXPECT_TRUE(tooMany.awaitClosed());
  clients.clear();
  EXPECT_TRUE(waitUntil([&] { return ctl({"status"}).status == 0; }));
  EXPECT_EQ(integerAt(*dictionaryAt(*dictionaryAt(status(), "connections"), "refused"),
                      "tooManyConnections"),
            1);
}

TEST_F(Control, TheLedgerAddsUpAfterEveryKindOfFault) {
  for (const char* const name : {"lumen", "tessel"})
    publish(name, storebagPostingTo(urlOf("events"), admitsEverybody()));
  startDaemon();
  const auto isQuiet = [&] {
    const Dictionary now = ledger();
    EXPECT_TRUE(adds(now));
    return integerAt(now, "underWay") == 0;
  };
  const auto sendOne = [&] {
    {
      TestClient client(_root.path());
      client.configure({.clientName = "Player"}).text();
      EXPECT_TRUE(waitUntil(isQuiet));
      client.send("event", 1).text();
      client.flush().text();
    }
    EXPECT_TRUE(waitUntil([&] { return sessions().empty() && isQuiet(); }));
  };
  sendOne();
  plan("events", {{"status", 404}});
  sendOne();
  plan("events", {{"cutHeadAfter", 0}});
  sendOne();
  plan("events", {{"status", 503}});
  sendOne();
  const Dictionary ledger = this->ledger();
  EXPECT_TRUE(adds(ledger)) << ctl({"status", "--json"}).output;
  EXPECT_GT(*integerAt(ledger, "delivered"), 0);
  EXPECT_TRUE(dictionaryAt(ledger, "refused")->contains("404"));
  EXPECT_TRUE(dictionaryAt(ledger, "refused")->contains("503"));
  EXPECT_FALSE(dictionaryAt(ledger, "failed")->empty());
  EXPECT_TRUE(dictionaryAt(ledger, "dropped")->contains("disabledByServer"));
}

TEST_F(Control, SendSaysWhyNothingReportsAndWhatHelps) {
  publish("lumen", storebagPostingTo(urlOf("events"), admitsEverybody()));
  startDaemon();
  const ToolResult noStorebag = ctl({"states", "--client-type", "3"});
  EXPECT_EQ(noStorebag.status, 1);
  EXPECT_THAT(noStorebag.errors, HasSubstr("nothing reports: unknownClientType: No storebag"));
  publish("orrery",
          storebagPostingTo(urlOf("events"), {{"client", "Somebody"}, {"filters", Array()}}));
  const ToolResult noEntry = ctl({"send", "--client-type", "8", "--client-name", "Player"});
  EXPECT_EQ(noEntry.status, 1);
  EXPECT_THAT(
      noEntry.errors,
      HasSubstr("nothing reports: httpPost: noEntryMatches: No entry of the storebag is for "
                "this client and service name. Add an entry"));
}

TEST_F(Control, OfANameThatIsTooLongTheBeginningIsShown) {
  publish("lumen", storebagPostingTo(urlOf("events"), admitsEverybody()));
  startDaemon();
  TestClient client(_root.path());
  client.configure({.clientName = std::string(100'000, 'n')}).text();
  EXPECT_EQ(*stringAt(sessions().at(0), "clientName"), std::string(1024, 'n'));
}

TEST_F(Control, PeopleReadItWithoutATerminalAsPlainText) {
  startDaemon();
  admitBystander();
  for (const std::vector<std::string>& command :
       std::vector<std::vector<std::string>>{{"status"}, {"sessions"}, {"explain"}, {"top"}}) {
    const ToolResult result = ctl(command);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_THAT(result.output, testing::Not(HasSubstr("\x1b"))) << command[0];
    EXPECT_FALSE(result.output.empty());
  }
}

}  // namespace
}  // namespace corvid
