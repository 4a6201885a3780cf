// Random lives of sessions, from seeds, beside what the ledger says of them: whatever clients,
// configurations, consents and servers do, no event is missing and none counts twice.
//
// CORVID_LEDGER_SCENARIOS asks for another number of them, CORVID_LEDGER_SEED for another first
// seed.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "backends/https/HeldRecords.h"
#include "base/Reading.h"
#include "base/Sanitizer.h"
#include "daemon/CorviddAgent.h"
#include "protocol/Keys.h"
#include "tests/daemon/RandomInputs.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/RecordedReply.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {
namespace {

// So few that no client ever waits for its gate.
constexpr std::size_t mostExchanges = 8;

class Scenario : RandomInputs {
 public:
  explicit Scenario(unsigned seed) : RandomInputs(seed) {
    installLog(nullptr, LogLevel::error);
    Deployment deployment;
    deployment.consentIsLive = oneIn(3);
    _platform.restart(Paths("/nonexistent/root"), deployment);
    _platform.random->draw = oneIn(3) ? 0.9 : 0.1;
    if (oneIn(2)) {
      _platform.bundles->bundle = std::make_shared<FakeBundle>();
      _platform.bundles->bundle->classes["MetrixAdaptor"].operations.insert(
          "sendMessageWithMethod:respCode:dict:");
    }
    _agent = CorviddAgent::create([this](std::int32_t type, const auto&) { return fetch(type); });
  }
  // NOLINTNEXTLINE(bugprone-exception-escape): what is thrown there ends the test.
  ~Scenario() { leaveAll(); }
  Scenario(const Scenario&) = delete;
  Scenario& operator=(const Scenario&) = delete;

  // Until something does not add up.
  void run() {
    const std::size_t steps = 10 + below(25);
    for (std::size_t i = 0; i < steps && !testing::Test::HasFailure(); ++i) {
      step();
      look();
    }
    if (testing::Test::HasFailure()) return;
    if (oneIn(4)) return closeTheBooks();
    leaveAll();
    while (_platform.http->exchangesUnderWay() > 0) answerOne();
    look();
    EXPECT_EQ(totals().held, 0u);
    EXPECT_EQ(totals().underWay, 0u);
    for (const auto& account : _accounts) EXPECT_EQ(account->balance().underWay, 0u);
    compareWithWhatIsRemembered();
  }

  Balance totals() const { return _agent->ledger()->totals().balance; }

 private:
  // ---- What clients, servers and people do

  void step() {
    if (_clients.empty()) return connect();
    FakeConnection& client = *_clients[below(_clients.size())];
    switch (below(24)) {
      case 0: return connect();
      case 1: return describe(client);
      case 2:
      case 3: return start(client);
      case 4: return rename(client);
      case 5: return sendSingle(client);
      case 6: return sendIncomplete(client);
      case 7: sessionOf(client).finishSessionWithReply({}); return expectOne(client);
      case 8:
      case 9: return sessionOf(client).flushMessagesWithCompletion({});
      case 10: return leave(below(_clients.size()));
      case 11: _platform.consent->allowed = !_platform.consent->allowed; return;
      case 12: return _platform.clock->advance(std::chrono::seconds(below(3000)));
      case 13:
      case 14:
      case 15:
        if (_platform.http->exchangesUnderWay() > 0) answerOne();
        return;
      case 16:
        if (oneIn(20)) return flood(client);
        [[fallthrough]];
      default: return send(client);
    }
  }

  void connect() {
    const auto connection = std::make_shared<FakeConnection>();
    connection->entitlements.set(std::string(CorviddAgent::requiredEntitlement), true);
    ASSERT_TRUE(_agent->shouldAcceptNewConnection(connection));
    _clients.push_back(connection);
    if (!oneIn(5)) describe(*connection);
    if (!oneIn(5)) start(*connection);
  }
  void describe(FakeConnection& client) {
    sessionOf(client).setSessionInfo(sessionInfo(), userInfo(), {}, oneIn(8));
  }
  void start(FakeConnection& client) {
    RecordedReply<std::optional<Array>> reply;
    sessionOf(client).startConfigWithCompletionHandler(reply.reply());
    // With an answer that names backends, or none of them, there is a start message.
    if (reply.answers() == 1 && reply.result()) expectOne(client);
  }
  void rename(FakeConnection& client) { sessionOf(client).fetchStatesWithUserInfo(userInfo(), {}); }
  void send(FakeConnection& client) {
    const auto category = static_cast<std::uint16_t>(1 + below(3));
    if (oneIn(2)) {
      sessionOf(client).sendMessageWithCategory(category, 2, payload(), {});
    } else {
      Dictionary message{{"Category", category}, {"Type", 2}, {"Flag", int(below(4))}};
      if (auto content = payload()) message.set("Payload", *std::move(content));
      sessionOf(client).sendMessageWithDictionary(std::move(message), {});
    }
    expectOne(client);
  }
  // More than may be held of a client whose events wait for something.
  void flood(FakeConnection& client) {
    const auto its = sessionOf(client).backends();
    bool isWaiting = false;
    if (its)
      its->each([&](CorvidBackend& backend) {
        isWaiting = isWaiting || backend.state() == BackendState::waiting;
      });
    if (!isWaiting) return;
    while (_platform.http->exchangesUnderWay() > 0) answerOne();
    constexpr std::size_t share = 4;
    for (std::size_t i = 0; i < share + 2; ++i) {
      sessionOf(client).sendMessageWithCategory(
          9, 2, Dictionary{{"text", std::string(HeldRecords::byteLimit / share, 'x')}}, {});
      expectOne(client);
    }
  }
  void sendIncomplete(FakeConnection& client) {
    sessionOf(client).sendMessageWithDictionary(Dictionary{{"Type", 2}}, {});
    ++_accepted;
  }
  void sendSingle(FakeConnection& client) {
    Dictionary info = oneIn(10) ? Dictionary() : sessionInfo();
    const std::int32_t type = int32At(info, kCorvidSessionInfoClientType);
    _hasSentSingles = true;
    RecordedReply<MessageAnswer> reply;
    sessionOf(client).sendMessageWithSessionInfo(std::move(info), userInfo(), 4, 2, payload(),
                                                 reply.reply());
    const bool wasOffered = reply.answers() == 1 && reply.result() == "finished";
    _accepted += wasOffered ? std::max<std::size_t>(1, _backendsOf.at(type)) : 1;
  }
  void leave(std::size_t at) {
    const auto client = _clients[at];
    expectOne(*client);  // its end message
    _clients.erase(_clients.begin() + static_cast<std::ptrdiff_t>(at));
    client->clientVanishes();
  }
  void leaveAll() {
    while (!_clients.empty()) leave(_clients.size() - 1);
  }
  // Ends the exchange that began first, somehow: its events are nowhere else afterwards.
  void answerOne() {
    constexpr std::array<int, 8> statuses{200, 200, 200, 204, 302, 404, 500, 503};
    constexpr std::array<HTTPFailure, 4> failures{HTTPFailure::connect, HTTPFailure::tls,
                                                  HTTPFailure::closed, HTTPFailure::queueFull};
    const Balance before = totals();
    const int status = anyOf(statuses);
    const HTTPFailure kind = anyOf(failures);
    const bool fails = oneIn(4);
    _platform.http->completeNext(fails ? FakeHTTPClient::error(7, "no server today", kind)
                                       : FakeHTTPClient::response(status));
    const Balance after = totals();
    const std::uint64_t ended = before.underWay - after.underWay;
    // A batch that was posted for an event that found it full has none of its own.
    if (ended == 0) {
      EXPECT_EQ(after.toDictionary(), before.toDictionary());
      return;
    }
    const bool isTaken = !fails && status < 300;
    EXPECT_EQ(after.delivered - before.delivered, isTaken ? ended : 0);
    EXPECT_EQ(after.refusedInAll() - before.refusedInAll(), !fails && !isTaken ? ended : 0);
    EXPECT_EQ(after.failedInAll() - before.failedInAll(), fails ? ended : 0);
    if (fails) {
      const auto at = static_cast<std::size_t>(kind);
      EXPECT_EQ(after.failed[at] - before.failed[at], ended);
    } else if (!isTaken) {
      const auto found = before.refused.find(status);
      EXPECT_EQ(after.refused.at(status) - (found == before.refused.end() ? 0 : found->second),
                ended);
    }
  }
  // At the end of the process nothing is left to happen, and what happens all the same counts no
  // more.
  void closeTheBooks() {
    const Balance before = totals();
    EXPECT_EQ(_agent->ledger()->close(), before.held + before.underWay);
    const Balance closed = totals();
    EXPECT_TRUE(closed.adds());
    EXPECT_EQ(closed.accepted, before.accepted);
    EXPECT_EQ(closed.held + closed.underWay, 0u);
    compareWithWhatIsRemembered();
    leaveAll();
    while (_platform.http->exchangesUnderWay() > 0)
      _platform.http->completeNext(FakeHTTPClient::response(200));
    EXPECT_EQ(totals().toDictionary(), closed.toDictionary());
  }

  // ---- What servers say

  FetchedStorebag fetch(std::int32_t type) {
    _platform.clock->advance(std::chrono::seconds(1));  // so that nobody has to wait for the next
    constexpr std::array<Reason, 3> faults{Reason::storebagUnreachable, Reason::storebagUnverified,
                                           Reason::storebagMalformed};
    if (oneIn(6)) return {.fault = StorebagFault{anyOf(faults), "not today"}};
    const bool isBare = oneIn(8);
    auto [section, backends] = anySection(type);
    if (!isBare) _backendsOf[type] = backends;
    return {.storebag = std::move(section),
            .maxAge = oneIn(2) ? 0 : 3600,
            .version = isBare ? std::nullopt : std::optional<std::string>("1")};
  }
  // ---- What must hold

  static CorviddSession& sessionOf(FakeConnection& connection) {
    return dynamic_cast<CorviddSession&>(*connection.exportedObject);
  }
  // The session has offered one event to all that it has.
  void expectOne(FakeConnection& client) {
    std::size_t backends = 0;
    if (const auto its = sessionOf(client).backends()) its->each([&](auto&) { ++backends; });
    _accepted += std::max<std::size_t>(1, backends);
    noteAccounts(client);
  }
  void noteAccounts(FakeConnection& client) {
    if (const auto its = sessionOf(client).backends())
      its->each([&](CorvidBackend& backend) {
        const auto account = backend.account().shared_from_this();
        if (std::ranges::find(_accounts, account) == _accounts.end()) _accounts.push_back(account);
      });
  }
  void look() {
    while (_platform.http->exchangesUnderWay() > mostExchanges) answerOne();
    const Balance all = totals();
    EXPECT_EQ(all.accepted, _accepted);
    EXPECT_TRUE(all.adds());
    std::uint64_t accepted = 0;
    std::uint64_t held = 0;
    std::uint64_t underWay = 0;
    for (const auto& account : _accounts) {
      const Balance its = account->balance();
      EXPECT_TRUE(its.adds()) << account->session();
      accepted += its.accepted;
      held += its.held;
      underWay += its.underWay;
    }
    EXPECT_LE(accepted, all.accepted);
    // A single message's backends live for it alone, and nobody sees their accounts; they hold
    // nothing when it has been sent.
    EXPECT_EQ(held, all.held);
    if (_hasSentSingles) {
      EXPECT_LE(underWay, all.underWay);
    } else {
      EXPECT_EQ(underWay, all.underWay);
    }
    for (const auto& client : _clients) {
      const auto its = sessionOf(*client).backends();
      if (!its) continue;
      its->each([&](CorvidBackend& backend) {
        EXPECT_EQ(backend.heldBytes() > 0, backend.account().balance().held > 0);
      });
    }
  }
  // Where all decisions are still remembered, they tell the same.
  void compareWithWhatIsRemembered() const {
    const auto decisions = _agent->ledger()->latest(Ledger::remembered, std::nullopt);
    if (decisions.size() == Ledger::remembered) return;
    std::map<std::string, std::uint64_t> counts;
    const auto add = [&](const Dictionary& verdict) {
      const std::string& outcome = *stringAt(verdict, "outcome");
      ++counts[outcome];
      if (outcome == "dropped") ++counts[*stringAt(verdict, "reason")];
    };
    for (const Dictionary& decision : decisions) {
      if (!decision.contains("event")) continue;
      if (decision.contains("outcome")) add(decision);
      for (const Value& verdict : *arrayAt(decision, "backends")) add(*verdict.dictionary());
    }
    const Balance all = totals();
    EXPECT_EQ(counts["delivered"], all.delivered);
    EXPECT_EQ(counts["refused"], all.refusedInAll());
    EXPECT_EQ(counts["failed"], all.failedInAll());
    EXPECT_EQ(counts["dropped"], all.droppedInAll());
    for (const ReasonText& text : reasonTexts)
      EXPECT_EQ(counts[std::string(text.word)], all.dropped[static_cast<std::size_t>(text.reason)])
          << text.word;
  }

  TestPlatform _platform;
  std::shared_ptr<CorviddAgent> _agent;
  std::vector<std::shared_ptr<FakeConnection>> _clients;
  std::map<std::int32_t, std::size_t> _backendsOf;  // by client type, of the storebag in force
  std::vector<std::shared_ptr<const LedgerAccount>> _accounts;
  std::uint64_t _accepted = 0;
  bool _hasSentSingles = false;
};

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text ? static_cast<unsigned>(std::atol(text)) : otherwise;
}

TEST(LedgerScenarios, AddUpWhateverHappens) {
  const unsigned first = numberFrom("CORVID_LEDGER_SEED", 20261122);
  const unsigned count = numberFrom("CORVID_LEDGER_SCENARIOS", hasSanitizer ? 1000 : 10'000);
  std::set<Reason> seen;
  for (unsigned seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE(fmt::format("CORVID_LEDGER_SEED={} CORVID_LEDGER_SCENARIOS=1", seed));
    Scenario scenario(seed);
    scenario.run();
    if (HasFailure()) return;
    const Balance balance = scenario.totals();
    for (const ReasonText& text : reasonTexts)
      if (balance.dropped[static_cast<std::size_t>(text.reason)] > 0) seen.insert(text.reason);
  }
  if (count < 1000) return;
  // They come to nearly everything that can become of an event.
  for (const Reason reason :
       {Reason::noSessionInfo,       Reason::notConfigured,      Reason::unknownClientType,
        Reason::storebagUnreachable, Reason::noBackendMade,      Reason::noEntryMatches,
        Reason::noConsent,           Reason::countryNotListed,   Reason::noFilters,
        Reason::noThreshold,         Reason::sampledOut,         Reason::noAddress,
        Reason::disabledByServer,    Reason::parentLacksBackend, Reason::takesNoEvents,
        Reason::noAdaptor,           Reason::incompleteMessage,  Reason::batchFull,
        Reason::overLimit,           Reason::notFlushed,         Reason::unwritable,
        Reason::lostAtStop})
    EXPECT_TRUE(seen.contains(reason)) << wordOf(reason);
}

}  // namespace
}  // namespace corvid
