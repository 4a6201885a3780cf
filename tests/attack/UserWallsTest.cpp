// What the clients of one user do to those of another: nothing that the other notices.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/LogPace.h"
#include "base/Reading.h"
#include "config/Identifiers.h"
#include "config/MessageLog.h"
#include "platform/data/PropertyList.h"
#include "tests/attack/AttackFixture.h"
#include "tests/rpc/RawMessages.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/ToolProcess.h"
#include "tests/support/Waiting.h"
#include "tools/lab/Collectors.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/Received.h"

namespace corvid {
namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

std::string randomText(std::size_t size) {
  std::mt19937 random(1);
  std::string text(size, '\0');
  for (char& c : text) c = static_cast<char>('0' + random() % 64);
  return text;
}

using UserWalls = AttackFixture;

// ---- Exchanges

class SharedCollector : public AttackFixture {
 protected:
  void SetUp() override {
    AttackFixture::SetUp();
    publish("lumen", storebagPostingTo(fmt::format("https://localhost:{}/events", _server.port())));
  }

  static constexpr std::size_t large = 100'000;

  const lab::TLSIdentity _identity{_lab.root().tlsFolder()};
  lab::ReceivedLog _log{_lab.root().receivedFile()};
  const lab::Collectors _collectors{_log};
  std::atomic<std::size_t> _silent = 0;
  // Never answers a large request.
  lab::HTTPServer _server{[this](const lab::Request& request) {
                            if (request.body.size() < large)
                              return _collectors.events("own", request);
                            ++_silent;
                            return lab::Answer{.silent = true};
                          },
                          lab::HTTPServer::Options{_identity.server()}};
};

TEST_F(SharedCollector, AFloodOfOneUserDelaysNoEventOfAnother) {
  TestClient victim(_root.path());
  ASSERT_EQ(victim.configure({.clientType = 5}).text(), "httpPost");
  // The attackers go on until the fixture ends.
  const auto payload =
      std::make_shared<const Dictionary>(Dictionary{{"noise", randomText(1'000'000)}});
  // Each has 16 MiB under way, as much as one user may have waiting for a host.
  for (int i = 0; i < 4; ++i)
    start(attacker, [payload](WireClient& client) {
      configure(client, attackersType);
      for (;;) sendEvent(client, 1, 2, *payload);
    });
  ASSERT_TRUE(waitUntil([&] { return _silent >= 8; }));
  std::this_thread::sleep_for(seconds(2));  // until all that has room waits
  for (int i = 0; i < 12; ++i) {
    const std::string mark = fmt::format("victim {}", i);
    const auto before = steady_clock::now();
    ASSERT_EQ(victim.send(mark).text(), "none");
    ASSERT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
    EXPECT_LT(steady_clock::now() - before, seconds(5)) << mark;
  }
  EXPECT_EQ(_silent, 8u) << "one user holds no more connections to a host";
}

// ---- What is kept

TEST_F(UserWalls, MadeUpNamesOfOneUserTakeNoIdentifierOfAnother) {
  Dictionary entry = admitsEverybody();
  entry.set("custom_clientId", 1);
  publish("lumen", storebagPostingTo(urlOf("events"), entry));
  const auto identifierOf = [&](const std::string& name) {
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.clientType = 5, .clientName = name}).text(), "httpPost");
    const std::string mark = fmt::format("{} {}", name, received().size());
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << mark;
    return std::string(*stringAt(*dictionaryAt(received().back(), "message"), "clientId"));
  };
  const std::string victims = identifierOf("Victim");
  const std::string filling(8000, 'x');
  start(attacker, [&](WireClient& client) {
    configure(client, attackersType, {{"_clientName", "Stranger"}});
    // Large ones first, then small ones into what is left.
    for (int i = 0; i < 150; ++i) {
      auto request = client.session.fetchStatesRequest();
      const std::string name = fmt::format("{}{}", i, i < 40 ? filling : "");
      fill(request.initUserInfo(1), {{"_clientName", name}});
      request.send().wait(client.scope);
    }
  });
  awaitStarted();
  EXPECT_EQ(identifierOf("Victim"), victims);
  const std::string later = identifierOf("Later");
  const auto stored = parsePropertyList(
      contentOf(_root.path("var/lib/corvidd/Preferences/com.halcyon.corvid.plist")));
  ASSERT_TRUE(stored);
  const Dictionary& entries = *stored.value().dictionary();
  EXPECT_EQ(*stringAt(entries, "uuid:Victim:Service"), victims);
  EXPECT_EQ(*stringAt(entries, "uuid:Later:Service"), later);
  std::size_t bytes = 0;
  std::size_t strangers = 0;
  for (const Dictionary::Entry& each : entries) {
    bytes += each.key.size();
    strangers += each.key.size() > filling.size();
  }
  EXPECT_LE(bytes, keptIdentifierBytes);
  EXPECT_GE(strangers, 20u) << "the store was full";
}

// Debug lines would cost more than the flood.
class QuietDaemon : public AttackFixture {
 protected:
  void launch() override {
    _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr", "--log-level", "warning"});
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }
};

TEST_F(QuietDaemon, AFloodOfOneUserTakesNoLineOfAnotherOutOfTheMessageLog) {
  TestClient victim(_root.path());
  ASSERT_EQ(victim.configure({.clientType = 16}).text(), "httpPost,uploadServer");
  EXPECT_EQ(victim.upload("/dev/null").text(), "refused");
  constexpr std::size_t lines = 8000;
  start(attacker, [](WireClient& client) {
    configure(client, attackersType);
    const std::string filling(15'000, 'x');
    for (std::size_t i = 0; i < lines; ++i) {
      auto request = client.session.uploadFileRequest();
      request.setReplyWanted(true);
      request.setFileURL(fmt::format("file:///stranger-{}-{}", i, filling));
      request.send().wait(client.scope);
    }
  });
  awaitStarted();
  EXPECT_EQ(victim.upload("/dev/zero").text(), "refused");
  const std::string log = messageLog();
  EXPECT_NE(log.find("file:///dev/null\n"), std::string::npos) << "from before the flood";
  EXPECT_NE(log.find("file:///dev/zero\n"), std::string::npos) << "from after it";
  EXPECT_EQ(log.find("file:///stranger-0-"), std::string::npos);
  // The last half of the flood, looked into here and there.
  for (std::size_t i = lines - mostMessageLogBytes / 2 / 15'200; i < lines; i += 100)
    EXPECT_NE(log.find(fmt::format("file:///stranger-{}-", i)), std::string::npos) << i;
  EXPECT_NE(log.rfind(fmt::format("file:///stranger-{}-", lines - 1)), std::string::npos);
  EXPECT_LE(log.size(), mostMessageLogBytes + 20'000);
  EXPECT_LE(timesLogged("Only upload a regular file."), LogPace::others + 5u)
      << "the stranger's and the victim's";
  for (const std::string& line : linesOf(_daemon->standardError()))
    ASSERT_LT(line.size(), 4096u + 200u) << "a whole name of the stranger's has 15,000 bytes";
}

// ---- The system's log

TEST_F(UserWalls, NoTextOfAClientLooksLikeALineOrTurnsOneAround) {
  const std::string tricks = "a\u202eb\u2028c\u2066d%0Ae%FF\u0085f";
  const auto client = wireClient();
  configure(*client, attackersType);
  auto request = client->session.uploadFileRequest();
  request.setReplyWanted(true);
  request.setFileURL("file:///" + tricks);
  request.send().wait(client->scope);
  const std::string log = _daemon->standardError();
  EXPECT_NE(log.find(R"(/a\u202eb\u2028c\u2066d\ne\xff\x85f)"), std::string::npos);
  for (const char* trick : {"\u202e", "\u2028", "\u2066", "\ne", "\xff", "\u0085"})
    EXPECT_EQ(log.find(trick), std::string::npos) << trick;
}

TEST_F(UserWalls, OneUsersBreachesAreCountedAndAnothersToldInFull) {
  for (int i = 0; i < 300; ++i) {
    RawClient client = connect();
    client.write(numbers({128, 0}));
    EXPECT_TRUE(client.awaitClosed());
  }
  EXPECT_LE(timesLogged(" broke a rule: "), LogPace::complaints + 3u);
  EXPECT_EQ(timesLogged("(further lines like it are counted and told of once a minute)"), 1u);
  const std::size_t before = timesLogged("user 0 broke a rule: a message of 129 segments; closing");
  RawClient client(socketPath());
  client.write(numbers({128, 0}));
  EXPECT_TRUE(client.awaitClosed());
  EXPECT_EQ(timesLogged("user 0 broke a rule: a message of 129 segments; closing"), before + 1);
}

}  // namespace
}  // namespace corvid
