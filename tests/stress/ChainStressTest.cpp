// 64 clients in 16 chains over real connections, and what must hold whenever all of them pause.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "config/Identifiers.h"
#include "daemon/CorviddAgent.h"
#include "protocol/Keys.h"
#include "rpc/IPCListener.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/stress/StressClient.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

constexpr int chains = 16;
constexpr int actsPerRound = 12;

int rounds() {
  const char* wanted = std::getenv("CORVID_STRESS_ROUNDS");
  return wanted != nullptr ? std::clamp(std::atoi(wanted), 1, 10000) : 5;
}

// A connection whose session is known to the test.
class WatchedConnection final : public Connection {
 public:
  using Session = std::weak_ptr<CorviddSession>;

  WatchedConnection(std::shared_ptr<Connection> connection, std::function<void(Session)> onSession,
                    std::function<void(CorviddSession&)> onGone)
      : _connection(std::move(connection)),
        _onSession(std::move(onSession)),
        _onGone(std::move(onGone)) {}

  std::string description() const override { return _connection->description(); }
  std::uint32_t user() const override { return _connection->user(); }
  std::optional<Value> valueForEntitlement(std::string_view name) override {
    return _connection->valueForEntitlement(name);
  }
  void setExportedObject(std::shared_ptr<ClientSessionInterface> object) override {
    const auto session = std::dynamic_pointer_cast<CorviddSession>(object);
    _session = session;
    _onSession(session);
    _connection->setExportedObject(std::move(object));
  }
  void setInterruptionHandler(std::function<void()> handler) override {
    _connection->setInterruptionHandler(std::move(handler));
  }
  void setInvalidationHandler(std::function<void()> handler) override {
    _connection->setInvalidationHandler(
        [handler = std::move(handler), session = _session, onGone = _onGone] {
          handler();
          onGone(*session.lock());
        });
  }
  void resume() override { _connection->resume(); }
  std::shared_ptr<ClientSessionReplyInterface> remoteObjectProxyWithErrorHandler(
      std::function<void(const std::string&)> onError) override {
    return _connection->remoteObjectProxyWithErrorHandler(std::move(onError));
  }
  void statesMayHaveChanged() override { _connection->statesMayHaveChanged(); }
  void perform(std::function<void()> task) override { _connection->perform(std::move(task)); }
  void invalidate(std::string_view reason) override { _connection->invalidate(reason); }

 private:
  const std::shared_ptr<Connection> _connection;
  const std::function<void(Session)> _onSession;
  const std::function<void(CorviddSession&)> _onGone;
  Session _session;
};

// The agent as the listener's delegate, and every session that it makes.
class WatchedAgent final : public ListenerDelegate {
 public:
  explicit WatchedAgent(std::shared_ptr<CorviddAgent> agent) : _agent(std::move(agent)) {}

  bool shouldAcceptNewConnection(std::shared_ptr<Connection> connection) override {
    return _agent->shouldAcceptNewConnection(std::make_shared<WatchedConnection>(
        std::move(connection),
        [this](auto session) {
          const std::lock_guard lock(_mutex);
          _sessions.push_back(std::move(session));
        },
        [this](CorviddSession& session) {
          const std::lock_guard lock(_mutex);
          _gone.insert(session.sessionID());
        }));
  }
  std::vector<std::shared_ptr<CorviddSession>> liveSessions() {
    const std::lock_guard lock(_mutex);
    std::erase_if(_sessions, [](const auto& session) { return session.expired(); });
    std::vector<std::shared_ptr<CorviddSession>> live;
    for (const auto& session : _sessions)
      if (auto kept = session.lock()) live.push_back(std::move(kept));
    return live;
  }
  // Whether the session of that number has gone since the last time that it was asked about.
  bool takeGone(int number) {
    const std::lock_guard lock(_mutex);
    return _gone.erase(static_cast<std::uint32_t>(number)) > 0;
  }

 private:
  const std::shared_ptr<CorviddAgent> _agent;
  std::mutex _mutex;
  std::vector<std::weak_ptr<CorviddSession>> _sessions;
  std::set<std::uint32_t> _gone;
};

std::optional<Dictionary> sectionOf(std::int32_t clientType) {
  const auto level = std::ranges::find(StressClient::clientTypes, clientType);
  const Dictionary entry{{"hierarchy", static_cast<int>(level - StressClient::clientTypes.begin())},
                         {"locale_whitelist", Array{"US"}},
                         {"filters", Array{}},
                         {"override_dnu", 1},
                         {"sampling_threshold", 1.0},
                         {"event_threshold", 10},
                         {"post_url", "https://events.invalid/"}};
  return Dictionary{{std::string(kCorvidBackendHTTPPost), Dictionary{{"clients", Array{entry}}}}};
}

class ChainStress : public testing::TestWithParam<unsigned> {
 protected:
  ChainStress() {
    installLog(nullptr, LogLevel::error);
    platform.consent->allowed = false;  // no message log
    platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
    auto bound = IPCListener::serving(
        ServiceSocket::bind(root.path("run/corvidd/com.halcyon.corvidd")),
        [](int) { return [] {
                    return Dictionary{{"com.halcyon.private.corvidd", true}};
                  }; },
        {*platform.extensionTokens, Platform::current().budgets});
    EXPECT_TRUE(bound);
    listener = std::move(bound).value();
    listener->resume(watched);
    for (int chain = 0; chain < chains; ++chain)
      for (int level = 0; level < StressClient::levels; ++level) {
        const int number = chain * 10 + level + 1;
        clients.push_back(std::make_unique<StressClient>(
            root.path(), number, chain, level, GetParam() * 1000 + static_cast<unsigned>(number),
            [this](int gone) { return watched->takeGone(gone); }));
      }
  }
  static std::shared_ptr<CorviddAgent> makeAgent() {
    return CorviddAgent::create([](std::int32_t clientType, const auto&) {
      return FetchedStorebag{.storebag = sectionOf(clientType), .maxAge = 3600, .version = "1"};
    });
  }

  template <class Act>
  void allAtOnce(Act act) {
    std::vector<std::thread> threads;
    for (const auto& client : clients) threads.emplace_back([&] { act(*client); });
    for (std::thread& thread : threads) thread.join();
  }
  // Connects one more client and waits until it is served: everybody before it has been accepted.
  client::Session probe() {
    client::Session::Options options;
    options.root = root.path();
    options.deadline = std::chrono::seconds(10);
    client::Session session(std::move(options));
    std::promise<void> answered;
    EXPECT_TRUE(session.fetchDisplayURL([&](client::Status, auto) { answered.set_value(); }));
    EXPECT_EQ(answered.get_future().wait_for(patience), std::future_status::ready);
    return session;
  }
  // Until the daemon has nothing left to do for clients that have come or gone.
  bool awaitPause() {
    const auto connected = static_cast<std::size_t>(
        std::ranges::count_if(clients, [](const auto& client) { return client->isConnected(); }));
    probe();
    return waitUntil([&] { return listener->connections() == connected; });
  }

  // What holds a session that is in no group: the same for every one.
  long referencesWithoutGroup() {
    long references = 0;
    {
      const client::Session session = probe();
      const client::Session next = probe();
      references = watched->liveSessions().at(0).use_count();
    }
    EXPECT_TRUE(awaitPause());
    return references;
  }
  void checkWhatMustHold(long withoutGroup);
  std::optional<std::string> parentIDOf(const StressClient& client) const;

  TestPlatform platform;
  ScratchRoot root;
  std::shared_ptr<CorviddAgent> agent = makeAgent();
  std::shared_ptr<WatchedAgent> watched = std::make_shared<WatchedAgent>(agent);
  std::unique_ptr<IPCListener> listener;
  std::vector<std::unique_ptr<StressClient>> clients;
  std::map<int, CorviddSession*> sessions;  // by client number, during a check
};

std::string keyOf(const StressClient& client) {
  const Dictionary info{{std::string(kCorvidUserInfoClientName), client.chainName()},
                        {std::string(kCorvidUserInfoServiceName), "Stress"}};
  return clientKey(&info);
}

// From the clients alone, without asking the agent.
std::optional<std::string> ChainStress::parentIDOf(const StressClient& client) const {
  std::optional<std::string> joined;
  for (int level = client.level() - 1; level >= 0; --level) {
    const auto parent = std::ranges::find_if(clients, [&](const auto& other) {
      return other->belongs() && other->level() == level && keyOf(*other) == keyOf(client);
    });
    if (parent == clients.end()) break;
    const std::string identifier = sessions.at((*parent)->number())->sessionIDString();
    joined = joined ? identifier + "." + *joined : identifier;
  }
  return joined;
}

void ChainStress::checkWhatMustHold(long withoutGroup) {
  const auto live = watched->liveSessions();
  sessions.clear();
  for (const auto& session : live)
    if (session->sessionID() != 0) sessions[static_cast<int>(session->sessionID())] = session.get();

  std::size_t connected = 0;
  std::map<std::string, int> aggregators;
  for (const auto& client : clients) {
    connected += client->isConnected();
    EXPECT_EQ(client->surprises(), 0u) << client->number();
    if (!client->mayAggregate()) {
      EXPECT_EQ(client->deliveries(), 0u) << client->number();
    }
    if (!client->belongs()) continue;
    ASSERT_TRUE(sessions.contains(client->number())) << client->number();
    CorviddSession& session = *sessions[client->number()];
    EXPECT_EQ(session.weak_from_this().use_count() - withoutGroup, 1)
        << client->number() << " is in exactly one group";
    EXPECT_EQ(session.getSessionHierarchy(), client->level());
    EXPECT_EQ(agent->parentSessionIDStringForSession(session), parentIDOf(*client))
        << client->number();
    aggregators[keyOf(*client)] += session.hasAggregator();
  }
  EXPECT_EQ(live.size(), connected) << "a session whose client has gone is kept";
  EXPECT_TRUE(agent->ledger()->totals().balance.adds());
  for (const auto& [key, count] : aggregators) EXPECT_LE(count, 1) << key;
  EXPECT_EQ(platform.keepAlive->begun - platform.keepAlive->ended, connected > 0 ? 1 : 0);
}

TEST_P(ChainStress, ClientsThatComeAndGoLeaveTheChainsInOrder) {
  const long withoutGroup = referencesWithoutGroup();
  for (int round = 0; round < rounds() && !HasFailure(); ++round) {
    allAtOnce([](StressClient& client) { client.act(actsPerRound); });
    ASSERT_TRUE(awaitPause());
    checkWhatMustHold(withoutGroup);
  }
  std::size_t deliveries = 0;
  for (const auto& client : clients) deliveries += client->deliveries();
  EXPECT_GT(deliveries, 0u);
  EXPECT_GT(platform.http->requests().size(), 0u);

  allAtOnce([](StressClient& client) { client.vanish(); });
  ASSERT_TRUE(awaitPause());
  EXPECT_TRUE(watched->liveSessions().empty());
  const Balance balance = agent->ledger()->totals().balance;
  EXPECT_TRUE(balance.adds());
  EXPECT_EQ(balance.held + balance.underWay, 0u) << "nobody is there to be waited for";
  EXPECT_GT(balance.delivered, 0u);
  EXPECT_EQ(platform.keepAlive->begun, platform.keepAlive->ended);
  const std::weak_ptr<CorviddAgent> kept = agent;
  listener = nullptr;
  watched = nullptr;
  agent = nullptr;
  EXPECT_TRUE(kept.expired());
}

INSTANTIATE_TEST_SUITE_P(Seeds, ChainStress, testing::Values(1u, 2u, 3u));

}  // namespace
}  // namespace corvid
