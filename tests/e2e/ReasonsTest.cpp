// Each reason for silence, provoked at the real daemon: the same word stands wherever an operator
// may look for it, and it is counted.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "backends/https/EventPoster.h"
#include "backends/https/HeldRecords.h"
#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "protocol/Limits.h"
#include "protocol/Reason.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/AsStranger.h"
#include "tests/support/Waiting.h"
#include "tools/lab/StorebagSigner.h"

namespace corvid {
namespace {

class Reasons : public LabFixture, protected Operator {
 protected:
  // Where a reason is to be seen.
  enum Place : unsigned {
    ofConnection = 1,  // connections.refused of the status, and corvid_connections_refused_total
    ofSession = 2,     // the session's reason
    ofBackend = 4,     // the reason of a backend of the session
    silent = 8,        // corvid_sessions_silent_total
    holds = 16,        // an event that is held for it
    drops = 32,        // one that is dropped, the ledger, and corvid_events_dropped_total
    delivers = 64,
  };
  static constexpr const char* deploymentFile = "etc/corvid/deployment.plist";

  struct Provocation {
    Reason reason;
    unsigned places;
    // Gives the session, 0 where it is a connection's; the client lives as long as the test.
    std::function<std::uint64_t(Reasons&)> provoke;
  };
  static std::vector<Provocation> provocations();

  Reasons() : Operator(_root.path()) {}
  void SetUp() override {
    publish("lumen", storebagWithAClientForEachReason());
    publish("orrery", childStorebag());
    publish("cadence", {{"version", "1"}, {"development", Dictionary()}});
    publish("quill", {{"version", "1"}, {"release", Dictionary()}});
    Dictionary deployment =
        *parsePropertyList(contentOf(_root.path(deploymentFile))).value().dictionary();
    deployment.set("RefuseOlderStorebags", true);
    _root.write(deploymentFile, writeXMLPropertyList(deployment));
    start();
  }
  void start() { startDaemon({"--stop-timeout", "1"}); }

  // An entry for the client of that name, without what the name says.
  Dictionary entry(const char* name, const Dictionary& more = {},
                   const std::vector<const char*>& without = {}) const {
    Dictionary entry = admitsEverybody();
    entry.addEntriesFrom(
        Dictionary{{"client", name}, {"post_url", urlOf("events")}, {"expedite", 1}});
    entry.addEntriesFrom(more);
    for (const char* const key : without) entry.erase(key);
    return entry;
  }
  Dictionary storebagWithAClientForEachReason() const {
    const Dictionary tooFew{{"sampling_threshold", -1.0}};
    return storebagOf(
        {{"httpPost",
          {entry("reporting"), entry("noConsent", {}, {"override_dnu"}),
           entry("countryNotListed", {{"locale_whitelist", Array()}}),
           entry("deviceNotListed", {{"device_whitelist", Array{"Another"}}}),
           entry("deviceExcluded", {{"device_blacklist", Array{"Workbench1,1"}}}),
           entry("noFilters", {}, {"filters"}), entry("noThreshold", {}, {"sampling_threshold"}),
           entry("sampledOut", {{"sampling_threshold", -1}, {"override_sampling", -1}}),
           entry("noAddress", {}, {"post_url"}),
           entry("disabledByServer", {{"post_url", urlOf("realtime")}}),
           entry("batchFull", {{"expedite", 0}, {"event_threshold", 0}}),
           entry("notFlushed", tooFew), entry("chain")}}});
  }
  // Of clients that are a level below those of the other.
  Dictionary childStorebag() const {
    const Dictionary child = entry("chain", {{"hierarchy", 1}});
    return storebagOf({{"httpPost", {child}}, {"httpPost2", {child}}});
  }
  static Dictionary storebagOf(
      const std::vector<std::pair<const char*, std::vector<Dictionary>>>& backends) {
    Dictionary section;
    for (const auto& [name, entries] : backends)
      section.set(name, Dictionary{{"clients", Array(entries.begin(), entries.end())}});
    return {{"version", "1"}, {"refresh_cycle", 3600}, {"release", section}};
  }

  TestClient& newClient() { return _clients.emplace_back(_root.path()); }
  // The number of the session that came last.
  std::uint64_t latestSession() const {
    std::int64_t latest = 0;
    for (const Dictionary& session : sessions())
      latest = std::max(latest, integerAt(session, "session").value_or(0));
    return static_cast<std::uint64_t>(latest);
  }
  // A client of that name and type that has sent an event.
  std::uint64_t sendAs(const char* name, int clientType = 5) {
    TestClient& client = newClient();
    client.configure({.clientType = clientType, .clientName = name}).text();
    client.send("event").text();
    return latestSession();
  }
  // One of that type, without a name.
  std::uint64_t sendAsType(int clientType) {
    TestClient& client = newClient();
    client.configure({.clientType = clientType}).text();
    client.send("event").text();
    return latestSession();
  }
  // One that needs user info, and has none.
  TestClient& newClientThatWaits() {
    TestClient& client = newClient();
    EXPECT_TRUE(client.session().setSessionInfo(
        TestClient::sessionInfo({.batches = true, .clientName = "later"})));
    TestClient::Outcome started;
    EXPECT_TRUE(client.session().startConfig([started](auto, auto) { started.set("started"); }));
    EXPECT_EQ(started.text(), "started");
    return client;
  }
  RawClient connect(const char* socket) const {
    return RawClient(_root.path(std::string("run/corvidd/") + socket));
  }

  static std::string labelled(const char* name, Reason reason) {
    return fmt::format("{}{{reason=\"{}\"}}", name, wordOf(reason));
  }
  std::int64_t refused(Reason reason) const {
    return metric(labelled("corvid_connections_refused_total", reason));
  }
  std::int64_t dropped(Reason reason) const {
    return metric(labelled("corvid_events_dropped_total", reason));
  }
  std::int64_t silenced(Reason reason) const {
    return metric(labelled("corvid_sessions_silent_total", reason));
  }
  // Whether an event of the session came to that, for the reason.
  bool hasEvent(std::uint64_t session, std::string_view outcome, Reason reason) const {
    const auto says = [&](const Dictionary& verdict) {
      const std::string* const its = stringAt(verdict, "reason");
      return its && *its == wordOf(reason) && *stringAt(verdict, "outcome") == outcome;
    };
    for (const Dictionary& decision : explain({"--session", std::to_string(session)})) {
      if (says(decision)) return true;
      const Array* const backends = arrayAt(decision, "backends");
      if (backends && std::ranges::any_of(
                          *backends, [&](const auto& each) { return says(*each.dictionary()); }))
        return true;
    }
    return false;
  }
  // Whether the session, or where `ofBackends` one of its backends, has it.
  bool stands(std::uint64_t session, Reason reason, bool ofBackends) const {
    const auto found = sessions({std::to_string(session)});
    if (found.size() != 1) return false;
    const Array& backends = *arrayAt(found[0], "backends");
    const auto has = [&](const Dictionary& of) {
      const std::string* const its = stringAt(of, "reason");
      return its && *its == wordOf(reason);
    };
    if (!ofBackends) return has(found[0]) && backends.empty();
    return !stringAt(found[0], "reason") &&
           std::ranges::any_of(backends, [&](const auto& each) { return has(*each.dictionary()); });
  }
  void expect(const Provocation& provocation) {
    const Reason reason = provocation.reason;
    SCOPED_TRACE(wordOf(reason));
    const std::int64_t refusedBefore = refused(reason);
    const std::int64_t droppedBefore = dropped(reason);
    const std::int64_t silencedBefore = silenced(reason);
    const std::uint64_t session = provocation.provoke(*this);
    const auto isAt = [&](Place place) { return (provocation.places & place) != 0; };
    if (isAt(ofConnection)) {
      EXPECT_TRUE(waitUntil([&] { return refused(reason) > refusedBefore; }));
      const Dictionary status = this->status();
      EXPECT_GT(*integerAt(*dictionaryAt(*dictionaryAt(status, "connections"), "refused"),
                           wordOf(reason)),
                0);
    }
    if (isAt(ofSession)) {
      EXPECT_TRUE(stands(session, reason, false));
    }
    if (isAt(ofBackend)) {
      EXPECT_TRUE(stands(session, reason, true));
    }
    if (isAt(silent)) {
      EXPECT_GT(silenced(reason), silencedBefore);
    }
    if (isAt(holds)) {
      EXPECT_TRUE(hasEvent(session, "held", reason));
    }
    if (isAt(delivers)) {
      EXPECT_TRUE(waitUntil([&] { return hasEvent(session, "delivered", reason); }));
    }
    if (isAt(drops)) {
      EXPECT_TRUE(waitUntil([&] { return hasEvent(session, "dropped", reason); }));
      EXPECT_GT(dropped(reason), droppedBefore);
      EXPECT_EQ(integerAt(*dictionaryAt(ledger(), "dropped"), wordOf(reason)), dropped(reason));
    }
  }

  std::list<TestClient> _clients;
};

std::vector<Reasons::Provocation> Reasons::provocations() {
  constexpr unsigned whole = ofSession | silent | drops;
  constexpr unsigned partly = ofBackend | silent | drops;
  const auto ofEntry = [](Reason reason) {
    return Provocation{reason, partly, [reason](Reasons& test) {
                         return test.sendAs(std::string(wordOf(reason)).c_str());
                       }};
  };
  const auto ofType = [](Reason reason, unsigned places, int clientType) {
    return Provocation{reason, places,
                       [clientType](Reasons& test) { return test.sendAsType(clientType); }};
  };
  // Those of connections come early: they change who may connect.
  std::vector<Provocation> all{
      // The highest serial number is known to the next daemon, which has no storebag yet.
      {Reason::storebagOlder, whole,
       [](Reasons& test) {
         constexpr int clientType = 8;
         Dictionary numbered = test.childStorebag();
         numbered.set("serial", 2);
         test.publish("orrery", numbered);
         test.sendAsType(clientType);
         test._clients.clear();
         test._daemon->signal(SIGTERM);
         EXPECT_EQ(test._daemon->waitForExit(), 0);
         numbered.set("serial", 1);
         test.publish("orrery", numbered);
         test.start();
         const std::uint64_t session = test.sendAsType(clientType);
         numbered.set("serial", 3);
         test.publish("orrery", numbered);
         EXPECT_EQ(test.ctl({"refresh"}).status, 0);
         return session;
       }},
      {Reason::notEntitled, ofConnection,
       [](Reasons& test) {
         constexpr const char* file = "etc/corvid/entitlements.d/lab.plist";
         const std::string content = contentOf(test._root.path(file));
         test._root.remove(file);
         EXPECT_TRUE(test.connect("com.halcyon.corvidd").awaitClosed());
         test._root.write(file, content);
         return 0;
       }},
      {Reason::tooManyConnections, ofConnection,
       [](Reasons& test) {
         std::list<RawClient> clients;
         for (std::size_t i = 0; i < limits::controlConnections; ++i)
           clients.push_back(test.connect("control"));
         EXPECT_TRUE(test.connect("control").awaitClosed());
         clients.clear();
         EXPECT_TRUE(waitUntil([&] { return test.ctl({"status"}).status == 0; }));
         return 0;
       }},
      {Reason::noSessionInfo, whole,
       [](Reasons& test) {
         TestClient& client = test.newClient();
         TestClient::Outcome started;
         EXPECT_TRUE(client.session().startConfig([started](auto, auto) { started.set(""); }));
         started.text();
         client.send("event").text();
         return test.latestSession();
       }},
      {Reason::notConfigured, ofSession | drops,
       [](Reasons& test) {
         TestClient& client = test.newClient();
         EXPECT_TRUE(client.session().setSessionInfo(TestClient::sessionInfo({})));
         client.send("event").text();
         return test.latestSession();
       }},
      ofType(Reason::unknownClientType, whole, 3),
      {Reason::storebagUnreachable, whole,
       [](Reasons& test) {
         test.plan("storebags", {{"cutHeadAfter", 0}});
         return test.sendAsType(12);
       }},
      {Reason::storebagUnverified, whole,
       [](Reasons& test) {
         constexpr const char* file = "usr/share/corvid/publicKey.der";
         const std::string key = contentOf(test._root.path(file));
         test._root.write(file, lab::StorebagSigner(signingKeyFile("other")).publicKeyDER());
         const std::uint64_t session = test.sendAsType(17);
         test._root.write(file, key);
         return session;
       }},
      {Reason::storebagMalformed, whole,
       [](Reasons& test) {
         test.plan("storebags", {{"status", 503}});
         return test.sendAsType(6);
       }},
      ofType(Reason::noSectionForEnvironment, whole, 9),
      ofType(Reason::noBackendMade, whole, 10),
      {Reason::reporting, ofBackend | delivers,
       [](Reasons& test) { return test.sendAs("reporting"); }},
      {Reason::waitingForUserInfo, ofBackend | silent | holds,
       [](Reasons& test) {
         test.newClientThatWaits().send("event").text();
         return test.latestSession();
       }},
      {Reason::noEntryMatches, partly, [](Reasons& test) { return test.sendAs("nobody"); }},
      {Reason::disabledByServer, ofBackend | drops,
       [](Reasons& test) {
         test.plan("realtime", {{"status", 503}});
         TestClient& client = test.newClient();
         client.configure({.clientName = "disabledByServer"}).text();
         const std::uint64_t session = test.latestSession();
         EXPECT_TRUE(
             waitUntil([&] { return test.stands(session, Reason::disabledByServer, true); }));
         client.send("event").text();
         return session;
       }},
      {Reason::parentLacksBackend, partly,
       [](Reasons& test) {
         test.sendAs("chain");
         return test.sendAs("chain", 8);
       }},
      ofType(Reason::takesNoEvents, partly, 16),
      ofType(Reason::noAdaptor, partly, 7),
      {Reason::incompleteMessage, drops,
       [](Reasons& test) {
         TestClient& client = test.newClient();
         client.configure({.clientName = "reporting"}).text();
         client::Dictionary message;
         EXPECT_TRUE(message.set("Category", 7));
         TestClient::Outcome sent;
         EXPECT_TRUE(client.session().sendMessage(message, [sent](auto, auto) { sent.set(""); }));
         sent.text();
         return test.latestSession();
       }},
      {Reason::batchFull, drops,
       [](Reasons& test) {
         TestClient& client = test.newClient();
         client.configure({.batches = true, .clientName = "batchFull"}).text();
         client.send("held").text();
         client.send("one too many").text();
         return test.latestSession();
       }},
      {Reason::overLimit, drops,
       [](Reasons& test) {
         TestClient& client = test.newClientThatWaits();
         client::Dictionary payload;
         constexpr std::size_t share = 4;
         EXPECT_TRUE(payload.set("text", std::string(HeldRecords::byteLimit / share, 'x')));
         for (std::size_t i = 0; i <= share; ++i) client.send(payload).text();
         return test.latestSession();
       }},
      {Reason::notFlushed, drops,
       [](Reasons& test) {
         test.sendAs("notFlushed");
         const std::uint64_t session = test.latestSession();
         EXPECT_TRUE(test.hasEvent(session, "held", Reason::sampledOut));
         test._clients.pop_back();
         return session;
       }},
      {Reason::unwritable, drops,
       [](Reasons& test) {
         TestClient& client = test.newClient();
         client.configure({.clientName = "reporting"}).text();
         client::Dictionary payload;
         // Six bytes each, once escaped.
         EXPECT_TRUE(payload.set("text", std::string(EventPoster::mostMessageBytes / 6, '\x01')));
         client.send(payload).text();
         return test.latestSession();
       }},
  };
  for (const Reason reason : {Reason::noConsent, Reason::countryNotListed, Reason::deviceNotListed,
                              Reason::deviceExcluded, Reason::noFilters, Reason::noThreshold,
                              Reason::sampledOut, Reason::noAddress})
    all.push_back(ofEntry(reason));
  if (getuid() == 0)  // nobody else can be somebody else
    all.push_back({Reason::controlNotEntitled, ofConnection, [](Reasons& test) {
                     EXPECT_EQ(chmod(test._root.path().c_str(), 0755), 0);
                     const AsStranger other;
                     EXPECT_TRUE(test.connect("control").awaitClosed());
                     return 0;
                   }});
  return all;
}

TEST_F(Reasons, EachIsSeenWhereverAnOperatorLooks) {
  for (const Provocation& provocation : provocations()) expect(provocation);
  EXPECT_TRUE(adds(ledger()));
  // Nobody can look any more when this one is decided, so that the log has it.
  plan("events", {{"silent", true}, {"times", -1}});
  sendAs("reporting");
  _daemon->signal(SIGTERM);
  EXPECT_EQ(_daemon->waitForExit(), 0);
  EXPECT_EQ(timesLogged(fmt::format("events lost ({})", wordOf(Reason::lostAtStop))), 1u)
      << _daemon->standardError();
}

// A new word fails here until somebody has shown how it comes about.
TEST_F(Reasons, EachOfTheListIsProvoked) {
  std::set<std::string_view> provoked{wordOf(Reason::lostAtStop)};
  for (const Provocation& provocation : provocations())
    EXPECT_TRUE(provoked.insert(wordOf(provocation.reason)).second) << wordOf(provocation.reason);
  std::set<std::string_view> expected;
  for (const ReasonText& text : reasonTexts) expected.insert(text.word);
  if (getuid() != 0) expected.erase(wordOf(Reason::controlNotEntitled));
  EXPECT_EQ(provoked, expected);
}

}  // namespace
}  // namespace corvid
