#include "tests/daemon/AgentFixture.h"

#include <map>
#include <stdexcept>

#include "protocol/Keys.h"

namespace corvid {

namespace {

// Each level has a client type with a storebag name of its own.
const std::map<std::int32_t, std::int32_t> clientTypeOfLevel{{0, 8},  {1, 9},   {2, 10},
                                                             {3, 12}, {-1, 16}, {-2, 17}};

std::int32_t levelOfClientType(std::int32_t clientType) {
  for (const auto& [level, type] : clientTypeOfLevel)
    if (type == clientType) return level;
  return 0;
}

}  // namespace

AgentTest::~AgentTest() {
  for (const auto& connection : _connections) connection->clientVanishes();
}

std::shared_ptr<CorviddAgent> AgentTest::makeAgent() {
  answerFetch = [](std::int32_t clientType) {
    return FetchedStorebag{.storebag = sectionWithHierarchy(levelOfClientType(clientType)),
                           .maxAge = 3600,
                           .version = "1.0"};
  };
  return CorviddAgent::create(
      [this](std::int32_t clientType, const std::optional<std::string>& lastModified) {
        fetches.push_back({clientType, lastModified});
        return answerFetch(clientType);
      });
}

std::shared_ptr<FakeConnection> AgentTest::newConnection(const std::string& description) {
  auto connection = std::make_shared<FakeConnection>(description);
  connection->entitlements.set("com.halcyon.private.corvidd", true);
  connection->peerUser = _user;
  if (_meetsOthers) connection->entitlements.set("com.halcyon.private.corvidd.chains", true);
  _connections.push_back(connection);
  return connection;
}

void AgentTest::becomeUser(std::uint32_t user, bool meetsOthers) {
  _user = user;
  _meetsOthers = meetsOthers;
}

std::shared_ptr<FakeConnection> AgentTest::connect(const std::string& description) {
  auto connection = newConnection(description);
  if (!agent->shouldAcceptNewConnection(connection)) throw std::logic_error("refused");
  return connection;
}

CorviddSession& AgentTest::sessionOf(FakeConnection& connection) {
  return dynamic_cast<CorviddSession&>(*connection.exportedObject);
}

CorviddSession& AgentTest::connectAs(std::uint32_t sessionID, std::int32_t clientType,
                                     std::optional<Dictionary> userInfo, bool aggregates) {
  CorviddSession& session = sessionOf(*connect());
  const bool requiresUserInfo = userInfo.has_value();
  session.setSessionInfo(
      Dictionary{{std::string(kCorvidSessionInfoSessionID), sessionID},
                 {std::string(kCorvidSessionInfoClientType), clientType},
                 {std::string(kCorvidSessionInfoRequireUserInfo), requiresUserInfo}},
      std::move(userInfo), {}, aggregates);
  return session;
}

CorviddSession& AgentTest::join(std::uint32_t sessionID, std::int32_t level, bool aggregates,
                                const std::string& name) {
  CorviddSession& session =
      connectAs(sessionID, clientTypeOfLevel.at(level), userInfo(name, "Feed"), aggregates);
  session.startConfigWithCompletionHandler({});
  if (session.getSessionHierarchy() != level) throw std::logic_error("not at its level");
  return session;
}

FakeConnection& AgentTest::connectionOf(const CorviddSession& session) {
  for (const auto& connection : _connections)
    if (connection->exportedObject.get() == &session) return *connection;
  throw std::logic_error("no connection");
}

Dictionary AgentTest::userInfo(const std::string& clientName, const std::string& serviceName) {
  return {{std::string(kCorvidUserInfoClientName), clientName},
          {std::string(kCorvidUserInfoServiceName), serviceName}};
}

Dictionary AgentTest::sectionWithHierarchy(std::int32_t level) {
  const Dictionary client{{"hierarchy", level},
                          {"locale_whitelist", Array{"US"}},
                          {"filters", Array{}},
                          {"sampling_threshold", 1.0},
                          {"post_url", "https://events.invalid/"}};
  return {{std::string(kCorvidBackendHTTPPost), Dictionary{{"clients", Array{client}}}}};
}

}  // namespace corvid
