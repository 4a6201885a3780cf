// The loops that accept answer who watches them.
#include <gtest/gtest.h>

#include <atomic>

#include "rpc/ControlService.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using std::chrono::milliseconds;

bool answers(const Heartbeat& heartbeat, milliseconds limit = patience) {
  return waitUntil([&] { return heartbeat.hasAnswered(); }, limit);
}

class Heartbeats : public ServiceFixture {
 protected:
  // Holds up whoever calls it until the test lets it go on.
  void holdUp() {
    isHeldUp = true;
    EXPECT_TRUE(waitUntil([&] { return mayGoOn.load(); }));
  }
  void expectSilenceUntilItGoesOn(Heartbeat& heartbeat) {
    ASSERT_TRUE(waitUntil([&] { return isHeldUp.load(); }));
    heartbeat.ask();
    EXPECT_FALSE(answers(heartbeat, milliseconds(50)));
    mayGoOn = true;
    EXPECT_TRUE(answers(heartbeat));
  }

  std::atomic<bool> isHeldUp{false};
  std::atomic<bool> mayGoOn{false};
};

TEST_F(Heartbeats, TheIdleListenerAnswersAgainAndAgain) {
  start();
  for (int i = 0; i < 3; ++i) {
    listener->heartbeat().ask();
    EXPECT_TRUE(answers(listener->heartbeat()));
  }
}

TEST_F(Heartbeats, AListenerThatIsHeldUpDoesNotAnswer) {
  delegate->onSession = [&](RecordingSession&, const auto&) { holdUp(); };
  start();
  const Descriptor client = connectTo(path);
  expectSilenceUntilItGoesOn(listener->heartbeat());
}

// Nobody gets through to it.
class RefusingControl final : public ControlInterface {
 public:
  explicit RefusingControl(std::function<void()> onRefusal) : _onRefusal(std::move(onRefusal)) {}

  std::string status() override { return {}; }
  std::string sessions(SessionNumber) override { return {}; }
  std::vector<std::string> explain(SessionNumber, std::size_t) override { return {}; }
  std::unique_ptr<ControlWatch> watch(SessionNumber, bool, std::function<void()>) override {
    return nullptr;
  }
  std::string metrics() override { return {}; }
  std::optional<std::string> storebag(const std::string&) override { return std::nullopt; }
  std::vector<std::string> refresh(std::optional<std::int32_t>, bool) override { return {}; }
  void setLogLevel(int, std::uint32_t) override {}
  void refused(Refusal) override { _onRefusal(); }

 private:
  const std::function<void()> _onRefusal;
};

TEST_F(Heartbeats, TheControlSocketsLoopAnswersUnlessItIsHeldUp) {
  const std::string controlPath = folder.path() + "/run/corvidd/control";
  auto made = ControlService::serving(
      ServiceSocket::bind(controlPath), [this](int) { return entitlements; }, budgets);
  ASSERT_TRUE(made) << made.failure().message;
  const auto control = std::move(made).value();
  control->resume(std::make_shared<RefusingControl>([&] { holdUp(); }));
  control->heartbeat().ask();
  EXPECT_TRUE(answers(control->heartbeat()));
  // One more than may look.
  std::vector<Descriptor> clients;
  for (std::size_t i = 0; i <= limits::controlConnections; ++i)
    clients.push_back(connectTo(controlPath));
  expectSilenceUntilItGoesOn(control->heartbeat());
}

}  // namespace
}  // namespace corvid
