// What attackers of two users do, all at the same time.
#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "daemon/FetchPace.h"
#include "protocol/Limits.h"
#include "tests/attack/AttackFixture.h"
#include "tests/support/Waiting.h"
#include "tools/lab/HTTPServer.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

class AllTogether : public AttackFixture {
 protected:
  void SetUp() override {
    AttackFixture::SetUp();
    Dictionary entry = admitsEverybody();
    entry.set("custom_clientId", 1);
    publish("lumen", storebagPostingTo(serverURL(), entry));
    publish("(null)", storebagPostingTo(serverURL()));
    publish("folio",
            {{"version", "7"},
             {"refresh_cycle", 3600},
             {"release", Dictionary{{"uploadServer", Dictionary{{"post_url", serverURL()}}}}}});
  }
  // Of what is attacked with log lines only the important ones. This thread, and the victim's,
  // which it starts, come first: what the victim waits for is to be the daemon.
  void launch() override {
    setpriority(PRIO_PROCESS, 0, -10);
    _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr", "--log-level", "warning"});
    ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
  }
  void TearDown() override {
    AttackFixture::TearDown();
    setpriority(PRIO_PROCESS, 0, 0);
  }
  std::string serverURL() const { return fmt::format("https://localhost:{}/x", _server.port()); }

  // Connections that announce a large message, and others that say nothing.
  void holdConnections() {
    for (int i = 0; i < 100; ++i) {
      _held.push_back(session(secondAttacker));
      _held.back().write(announcement());
    }
    for (const uid_t user : {attacker, secondAttacker})
      for (int i = 0; i < 50; ++i) _held.push_back(connect(user));
  }
  // Text that JSON writes sixfold. It is made beforehand: the attack is to cost the daemon's time
  // and not this process's.
  void amplify() {
    for (std::size_t size = 1; size <= 5; ++size)
      _large.push_back(event(4, {{"text", std::string(size * mebibyte, '\x01')}}));
    for (std::size_t i = 0; i < 40; ++i)
      start([this, i] {
        RawClient client = session(attacker, i % 4 < 2);
        while (client.write(_large[i % _large.size()]) && awaitAnswer(client, 4)) continue;
      });
  }
  // Events to a server that never answers large ones.
  void fillExchanges(uid_t user) {
    start(user, [payload = Dictionary{{"noise", std::string(mebibyte, 'n')}}](WireClient& client) {
      configure(client, attackersType);
      for (;;) sendEvent(client, 1, 2, payload);
    });
  }
  void floodLogs() {
    start(attacker, [](WireClient& client) {
      configure(client, attackersType);
      const std::string name = "file:///" + std::string(15'000, 'x');
      for (;;) upload(client, -1, name);
    });
    start([this] {
      for (;;) {
        RawClient client = connect(secondAttacker);
        client.write(numbers({128, 0}));
        (void)client.awaitClosed();
      }
    });
  }
  void floodIdentifiers() {
    start(attacker, [](WireClient& client) {
      configure(client, attackersType, {{"_clientName", "Somebody"}});
      for (int i = 0;; ++i) {
        auto request = client.session.fetchStatesRequest();
        fill(request.initUserInfo(1), {{"_clientName", fmt::format("{}", i)}});
        request.send().wait(client.scope);
      }
    });
  }
  // Everybody waits while one goes on. So the rest begins when the burst is over, and one a second
  // and user remain.
  void floodFetches() {
    const std::size_t before = _lab.storebags().requestsReceived();
    for (const uid_t user : {attacker, secondAttacker})
      start(user, [](WireClient& client) {
        for (;;) configure(client, unknownType);
      });
    EXPECT_TRUE(waitUntil(
        [&] { return _lab.storebags().requestsReceived() >= before + 2 * FetchPace::burst; }));
  }
  // One file after the other, of the largest that there may be: full of holes or not smaller when
  // it is compressed.
  void uploadAlways(uid_t user, const std::string& path) {
    start(user, [path](WireClient& client) {
      configure(client, uploadClient);
      const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      for (;;)
        if (!upload(client, file.get())) std::this_thread::sleep_for(milliseconds(20));
    });
  }

  static constexpr std::size_t large = 20'000;

  const lab::TLSIdentity _identity{_lab.root().tlsFolder()};
  // Takes uploads and small events, and never answers large events.
  lab::HTTPServer _server{[](const lab::Request& request) {
                            const bool isUpload = request.target.find("uuid=") != std::string::npos;
                            return lab::Answer{.silent = !isUpload && request.body.size() > large};
                          },
                          lab::HTTPServer::Options{_identity.server()}};
  std::vector<std::string> _large;
  std::list<RawClient> _held;
};

TEST_F(AllTogether, StayBelowHalfAGibibyteAndCostAnotherUserNothing) {
  const std::string holes = _root.write("files/holes", "");
  std::filesystem::resize_file(holes, limits::uploadBytes);
  const std::string dense = _root.write("files/dense", noise(64 * mebibyte));
  floodFetches();
  holdConnections();
  amplify();
  for (const uid_t user : {attacker, secondAttacker}) {
    fillExchanges(user);
    uploadAlways(user, dense);
  }
  uploadAlways(attacker, dense);
  uploadAlways(secondAttacker, holes);
  floodLogs();
  floodIdentifiers();
  const auto end = steady_clock::now() + seconds(8);
  expectVictimWaitsLittle([&] { return steady_clock::now() >= end; });
  expectPeakBelow(512 * mebibyte);
  EXPECT_TRUE(waitUntil([&] { return bystandersMissing() == 0; })) << bystandersMissing();
  EXPECT_GT(_server.requestsAnswered(), 0u) << "uploads";
  EXPECT_GT(timesLogged(" broke a rule: "), 0u);
}

}  // namespace
}  // namespace corvid
