// Conversations of several clients with one agent, beside a model of what chains are: an input is a
// list of acts, two bytes each. After each act, whoever is someone's parent and whoever was
// delivered a message must be who the model says.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "daemon/CorviddAgent.h"
#include "protocol/Keys.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace corvid;
using fuzz::require;

constexpr std::size_t mostClients = 12;
constexpr std::array<std::int32_t, 5> levels{0, 1, 2, 3, -1};
// Of each level one, with a storebag of its own.
constexpr std::array<std::int32_t, 5> clientTypes{8, 9, 10, 12, 16};
constexpr std::array<const char*, 2> names{"Player", "Reader"};

// What the model knows of a client.
struct Client {
  std::shared_ptr<FakeConnection> connection;
  std::shared_ptr<CorviddSession> session;
  std::size_t kind = 0;  // of level and client type
  bool meetsOthers = false;
  bool requiresUserInfo = false;
  std::optional<std::size_t> name{};   // what it has said last
  std::optional<std::size_t> group{};  // which it is in
  bool isStarted = false;
  bool aggregates = false;
  std::shared_ptr<int> delivered = std::make_shared<int>(0);
  int expected = 0;  // deliveries

  // The configuration's business, not the chain's.
  std::int32_t level() const { return session->getSessionHierarchy(); }
  bool mayMeet(const Client& other) const {
    return connection->peerUser == other.connection->peerUser || (meetsOthers && other.meetsOthers);
  }
};

class Conversation {
 public:
  Conversation() {
    // What is reported is not looked at: it waits in a batch, and nothing is logged.
    installLog(nullptr, LogLevel::error);
    _platform.consent->allowed = false;
    _platform.http->answerWith([](const HTTPRequest&) { return FakeHTTPClient::response(200); });
  }
  ~Conversation() {
    while (!_clients.empty()) vanish(0);
    require(_platform.keepAlive->begun == _platform.keepAlive->ended);
  }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  void act(unsigned what, unsigned how) {
    if (_clients.empty() || what % 16 == 0) return connect(how);
    const std::size_t at = (what / 16) % _clients.size();
    Client& client = _clients[at];
    switch (what % 16) {
      case 1:
      case 2: return describe(client, how);
      case 3:
      case 4:
      case 5: return start(client);
      case 6:
      case 7: return rename(client, how);
      case 8: return vanish(at);
      default: return send(client);
    }
  }
  void check() {
    for (Client& client : _clients) {
      require(client.session->hasAggregator() == client.aggregates);
      require(_agent->parentSessionIDStringForSession(*client.session) == parentIDOf(client));
      require(*client.delivered == client.expected);
    }
  }

 private:
  static std::optional<Dictionary> userInfo(std::optional<std::size_t> name) {
    if (!name) return std::nullopt;
    return Dictionary{{std::string(kCorvidUserInfoClientName), names[*name]},
                      {std::string(kCorvidUserInfoServiceName), "Service"}};
  }
  static FetchedStorebag fetch(std::int32_t clientType) {
    const auto kind =
        static_cast<std::size_t>(std::ranges::find(clientTypes, clientType) - clientTypes.begin());
    const Dictionary entry{{"hierarchy", levels[kind]},
                           {"locale_whitelist", Array{"US"}},
                           {"filters", Array{}},
                           {"override_dnu", 1},
                           {"sampling_threshold", 1.0},
                           {"event_threshold", 1000},
                           {"post_url", "https://events.invalid/"}};
    return {.storebag = Dictionary{{std::string(kCorvidBackendHTTPPost),
                                    Dictionary{{"clients", Array{entry}}}}},
            .maxAge = 3600,
            .version = "1"};
  }

  void connect(unsigned how) {
    if (_clients.size() == mostClients) return;
    Client client{.connection = std::make_shared<FakeConnection>(),
                  .session = nullptr,
                  .kind = how % levels.size()};
    client.connection->peerUser = 1000 + how / 16 % 3;
    client.meetsOthers = how / 64 % 2 == 1;
    client.connection->onDelivery = [count = client.delivered] { ++*count; };
    client.connection->entitlements.set(std::string(CorviddAgent::requiredEntitlement), true);
    client.connection->entitlements.set(std::string(CorviddSession::chainsEntitlement),
                                        client.meetsOthers);
    require(_agent->shouldAcceptNewConnection(client.connection));
    client.session = std::dynamic_pointer_cast<CorviddSession>(client.connection->exportedObject);
    _clients.push_back(std::move(client));
  }

  // The user info counts for the group from the next start or renaming on.
  void describe(Client& client, unsigned how) {
    client.name = nameFor(how);
    client.requiresUserInfo = client.name.has_value();
    client.aggregates = how / 4 % 2 == 1;
    client.session->setSessionInfo(
        Dictionary{{std::string(kCorvidSessionInfoSessionID), ++_lastID},
                   {std::string(kCorvidSessionInfoClientType), clientTypes[client.kind]},
                   {std::string(kCorvidSessionInfoBatchEvent), true},
                   {std::string(kCorvidSessionInfoRequireUserInfo), client.requiresUserInfo}},
        userInfo(client.name), {}, client.aggregates);
  }
  static std::optional<std::size_t> nameFor(unsigned how) {
    return how % 4 == 3 ? std::nullopt : std::optional<std::size_t>(how % names.size());
  }

  void start(Client& client) {
    if (!client.session->sessionInfo()) return;  // there would be no storebag
    client.session->startConfigWithCompletionHandler({});
    client.isStarted = true;
    regroup(client);
    expectMessageOf(client);
  }

  void rename(Client& client, unsigned how) {
    const auto name = nameFor(how);
    client.session->fetchStatesWithUserInfo(userInfo(name), {});
    if (name == client.name || (!name && client.requiresUserInfo)) return;
    client.name = name;
    regroup(client);
  }

  void send(Client& client) {
    client.session->sendMessageWithCategory(3, 1, Dictionary{{"mark", 1}}, {});
    expectMessageOf(client);
  }

  void vanish(std::size_t at) {
    Client client = std::move(_clients[at]);
    _clients.erase(_clients.begin() + static_cast<std::ptrdiff_t>(at));
    std::erase(_order, client.session.get());
    expectMessageOf(client);
    client.connection->clientVanishes();
    const std::weak_ptr<CorviddSession> session = client.session;
    client.session = nullptr;
    require(session.expired());
  }

  // What the model makes of an act.
  void expectMessageOf(Client& client) {
    if (!client.isStarted) return;
    if (Client* const ancestor = aggregatorAbove(client))
      ++ancestor->expected;
    else if (client.aggregates)
      ++client.expected;
  }
  // The client joins the group of its name as its last; below it nobody aggregates who has an
  // aggregator above.
  void regroup(Client& client) {
    if (!client.name) return;
    std::erase(_order, client.session.get());
    _order.push_back(client.session.get());
    client.group = client.name;
    const bool isBelow = aggregatorAbove(client) != nullptr;
    if (isBelow) shutDown(client);
    for (Client* const member : groupOf(client))
      if (member->level() > client.level() && (isBelow || client.aggregates)) shutDown(*member);
  }
  static void shutDown(Client& client) {
    client.expected += client.aggregates;
    client.aggregates = false;
  }
  // Those of the group of its present name that it may meet, in order of joining.
  std::vector<Client*> groupOf(const Client& client) {
    std::vector<Client*> group;
    for (const CorviddSession* session : _order) {
      const auto member =
          std::ranges::find_if(_clients, [&](const auto& c) { return c.session.get() == session; });
      require(member != _clients.end());
      if (client.name && member->group == client.name && client.mayMeet(*member))
        group.push_back(&*member);
    }
    return group;
  }
  static Client* firstAt(std::int32_t level, const std::vector<Client*>& group) {
    const auto first =
        std::ranges::find_if(group, [&](const Client* member) { return member->level() == level; });
    return first == group.end() ? nullptr : *first;
  }
  Client* aggregatorAbove(const Client& client) {
    const auto group = groupOf(client);
    for (std::int32_t level = 0; level < client.level(); ++level)
      if (Client* const first = firstAt(level, group); first && first->aggregates) return first;
    return nullptr;
  }
  std::optional<std::string> parentIDOf(const Client& client) {
    const auto group = groupOf(client);
    std::optional<std::string> joined;
    if (std::ranges::none_of(group,
                             [&](auto* member) { return member->session == client.session; }))
      return joined;
    for (std::int32_t level = client.level() - 1; level >= 0; --level) {
      const Client* const parent = firstAt(level, group);
      if (!parent) break;
      const std::string& identifier = parent->session->sessionIDString();
      joined = joined ? identifier + "." + *joined : identifier;
    }
    return joined;
  }

  TestPlatform _platform;
  const std::shared_ptr<CorviddAgent> _agent =
      CorviddAgent::create([](std::int32_t clientType, const auto&) { return fetch(clientType); });
  std::vector<Client> _clients;
  std::vector<const CorviddSession*> _order;  // of joining
  std::int64_t _lastID = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t mostActs = 300;
  Conversation conversation;
  for (std::size_t i = 0; i + 1 < std::min(size, 2 * mostActs); i += 2) {
    conversation.act(data[i], data[i + 1]);
    conversation.check();
  }
  return 0;
}
