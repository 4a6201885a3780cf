// An agent among fakes: sessions are real, connections and storebags come from the test.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/CorviddAgent.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/TestPlatform.h"

namespace corvid {

class AgentTest : public testing::Test {
 protected:
  // What one call of the fetch was given.
  struct Fetch {
    std::int32_t clientType;
    std::optional<std::string> lastModified;
  };

  // Ends every connection that is still there.
  ~AgentTest() override;

  // A connection with the entitlement, not yet offered to the agent.
  std::shared_ptr<FakeConnection> newConnection(const std::string& description = "client");
  // The clients that connect from now on are this user's, entitled to chains across users or not.
  void becomeUser(std::uint32_t user, bool meetsOthers = false);
  // An accepted one.
  std::shared_ptr<FakeConnection> connect(const std::string& description = "client");
  static CorviddSession& sessionOf(FakeConnection& connection);

  // A connected session that has described itself.
  CorviddSession& connectAs(std::uint32_t sessionID, std::int32_t clientType,
                            std::optional<Dictionary> userInfo = std::nullopt,
                            bool aggregates = false);
  // A started session of the chain `name`; its backend httpPost has the hierarchy `level`
  // (-2 to 3).
  CorviddSession& join(std::uint32_t sessionID, std::int32_t level, bool aggregates = false,
                       const std::string& name = "Player");
  // The connection of a session that connectAs or join made.
  FakeConnection& connectionOf(const CorviddSession& session);

  static Dictionary userInfo(const std::string& clientName, const std::string& serviceName);
  static Dictionary sectionWithHierarchy(std::int32_t level);

  TestPlatform platform;
  CapturedLog& log = platform.log;
  std::vector<Fetch> fetches;
  // By default the section of the client type that join uses for a level, fresh for an hour.
  std::function<FetchedStorebag(std::int32_t clientType)> answerFetch;
  std::shared_ptr<CorviddAgent> agent = makeAgent();

 private:
  std::shared_ptr<CorviddAgent> makeAgent();

  std::vector<std::shared_ptr<FakeConnection>> _connections;
  std::uint32_t _user = 1000;
  bool _meetsOthers = false;
};

}  // namespace corvid
