#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <semaphore>
#include <thread>
#include <vector>

#include "platform/network/SystemNetwork.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/NoMoreThreads.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;

class SystemNetworkTest : public testing::Test {
 protected:
  // Until what was handed to the queue so far has run.
  void settle() {
    std::promise<void> done;
    auto future = done.get_future();
    queue->async([&] { done.set_value(); });
    ASSERT_EQ(future.wait_for(patience), std::future_status::ready);
  }
  bool becomesIdle() {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (network->isBusy() && std::chrono::steady_clock::now() < deadline)
      idle.try_acquire_for(10ms);
    return !network->isBusy();
  }

  // Then all that is due by now has run.
  void pass(std::chrono::milliseconds time) {
    clock->advance(time);
    settle();
    settle();
  }

  const std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  std::counting_semaphore<> idle{0};
  std::optional<SystemNetwork> network{std::in_place, clock, [this] { idle.release(); }};
  std::shared_ptr<SerialQueue> queue = network->createQueue("test");
};

// Two connected sockets on the loopback.
struct SocketPair {
  explicit SocketPair(SystemNetwork& network)
      : here(std::move(network.openDatagramSocket()).value()),
        there(std::move(network.openDatagramSocket()).value()) {
    EXPECT_EQ(here->bindToAnyPort() + there->bindToAnyPort(), 0);
    EXPECT_EQ(here->connect(0x7F000001, portOf(*there)), 0);
    EXPECT_EQ(there->connect(0x7F000001, portOf(*here)), 0);
  }
  static std::uint16_t portOf(const DatagramSocket& socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }
  std::unique_ptr<DatagramSocket> here;
  std::unique_ptr<DatagramSocket> there;
};

TEST(SystemNetworkThread, WhereTheSystemHasNoneASourceIsNotMadeAndNothingThrows) {
  const auto work = [] {
    if (!endThreads()) return 2;
    SystemNetwork network(std::make_shared<FakeClock>());
    const auto queue = network.createQueue("test");
    if (queue->createTimer(
            10ms, [] {}, [] {}))
      return 3;
    queue->async([] {});
    return 0;
  };
  EXPECT_EQ(inChild(work), 0);
}

TEST_F(SystemNetworkTest, ALoopThatWasNeverStartedHasAnswered) {
  network->heartbeat().ask();
  EXPECT_TRUE(network->heartbeat().hasAnswered());
}

TEST_F(SystemNetworkTest, TheIdleLoopAnswersWhichIsNoWork) {
  settle();
  ASSERT_TRUE(becomesIdle());
  while (idle.try_acquire_for(20ms)) continue;
  for (int i = 0; i < 3; ++i) {
    network->heartbeat().ask();
    EXPECT_TRUE(waitUntil([&] { return network->heartbeat().hasAnswered(); }));
    EXPECT_FALSE(network->isBusy());
  }
  EXPECT_FALSE(idle.try_acquire_for(20ms));
  settle();
}

TEST_F(SystemNetworkTest, ALoopThatIsHeldUpDoesNotAnswer) {
  std::promise<void> begun, mayGoOn;
  queue->async([&begun, future = mayGoOn.get_future().share()] {
    begun.set_value();
    future.wait();
  });
  ASSERT_EQ(begun.get_future().wait_for(patience), std::future_status::ready);
  network->heartbeat().ask();
  EXPECT_FALSE(waitUntil([&] { return network->heartbeat().hasAnswered(); }, 50ms));
  mayGoOn.set_value();
  EXPECT_TRUE(waitUntil([&] { return network->heartbeat().hasAnswered(); }));
}

TEST_F(SystemNetworkTest, TasksRunInOrderOnOneThreadThatIsNotTheCallers) {
  std::vector<int> order;
  std::vector<std::thread::id> threads;
  for (int i = 0; i < 100; ++i)
    queue->async([&, i] {
      order.push_back(i);
      threads.push_back(std::this_thread::get_id());
    });
  settle();
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
    EXPECT_EQ(threads[static_cast<std::size_t>(i)], threads[0]);
  }
  EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST_F(SystemNetworkTest, TasksOfManyThreadsAllRun) {
  std::atomic<int> ran = 0;
  std::vector<std::thread> posters;
  for (int i = 0; i < 8; ++i)
    posters.emplace_back([&] {
      for (int j = 0; j < 1000; ++j) queue->async([&] { ++ran; });
    });
  for (auto& poster : posters) poster.join();
  settle();
  EXPECT_EQ(ran, 8000);
}

TEST_F(SystemNetworkTest, ATimerFiresOnItsGridWhileItIsArmed) {
  int ticks = 0;
  const auto timer = queue->createTimer(
      20ms, [&] { ++ticks; }, nullptr);
  pass(45ms);
  EXPECT_EQ(ticks, 0) << "not armed yet";
  timer->setArmed(true);
  pass(14ms);
  EXPECT_EQ(ticks, 0) << "never early";
  pass(1ms);
  EXPECT_EQ(ticks, 1) << "at 60 ms";
  pass(20ms);
  EXPECT_EQ(ticks, 2) << "at 80 ms";
  pass(65ms);
  EXPECT_EQ(ticks, 3) << "what is missed is not made up for";
  pass(15ms);
  EXPECT_EQ(ticks, 4) << "at 160 ms";
  timer->setArmed(false);
  pass(100ms);
  EXPECT_EQ(ticks, 4) << "disarmed";
}

TEST_F(SystemNetworkTest, ATimeThatComesWakesTheSleepingNetwork) {
  std::promise<void> ran;
  const auto delayed = queue->after(1h, [&] { ran.set_value(); });
  ASSERT_TRUE(clock->awaitSleeper(1h));
  clock->advance(1h);
  EXPECT_EQ(ran.get_future().wait_for(patience), std::future_status::ready);
}

TEST_F(SystemNetworkTest, ADisarmedTimerNeitherFiresNorKeepsTheNetworkBusy) {
  bool hasFired = false;
  const auto timer = queue->createTimer(
      1ms, [&] { hasFired = true; }, nullptr);
  EXPECT_FALSE(network->isBusy());
  pass(1s);
  ASSERT_TRUE(becomesIdle());
  timer->setArmed(true);
  EXPECT_TRUE(network->isBusy());
  timer->setArmed(false);
  pass(1s);
  EXPECT_FALSE(hasFired);
}

TEST_F(SystemNetworkTest, DelayedWorkRunsOnceAndNotEarly) {
  int runs = 0;
  const auto delayed = queue->after(30ms, [&] { ++runs; });
  EXPECT_TRUE(network->isBusy());
  pass(29ms);
  EXPECT_EQ(runs, 0);
  clock->advance(1ms);
  EXPECT_TRUE(idle.try_acquire_for(patience)) << "its end is told";
  EXPECT_EQ(runs, 1);
  EXPECT_TRUE(becomesIdle());
  pass(1h);
  EXPECT_EQ(runs, 1);
}

TEST_F(SystemNetworkTest, WhatIsCancelledDoesNotRun) {
  std::atomic<bool> hasRun = false;
  std::promise<void> cancelled;
  auto delayed = queue->after(1h, [&] { hasRun = true; });
  auto timer = queue->createTimer(
      1h, [&] { hasRun = true; }, [&] { cancelled.set_value(); });
  timer->setArmed(true);
  timer->cancel();
  timer->cancel();  // the handler is called once: the promise would throw
  delayed.reset();
  EXPECT_EQ(cancelled.get_future().wait_for(patience), std::future_status::ready);
  settle();
  EXPECT_TRUE(becomesIdle());
  EXPECT_FALSE(hasRun);
}

TEST_F(SystemNetworkTest, ASourceMayEndItselfInItsHandler) {
  std::promise<void> ended;
  std::unique_ptr<Timer> timer;
  queue->async([&] {
    timer = queue->createTimer(
        1ms, [&] { std::exchange(timer, nullptr)->cancel(); }, [&] { ended.set_value(); });
    timer->setArmed(true);
  });
  settle();
  pass(1ms);
  EXPECT_EQ(ended.get_future().wait_for(patience), std::future_status::ready);
}

TEST_F(SystemNetworkTest, AReadSourceIsCalledForEachDatagram) {
  SocketPair sockets(*network);
  std::vector<std::string> received;
  std::promise<void> enough;
  const auto source = queue->createReadSource(
      *sockets.here,
      [&] {
        std::array<char, 100> buffer;
        const auto size = sockets.here->receive(buffer);
        if (size) received.emplace_back(buffer.data(), *size);
        if (received.size() == 3) enough.set_value();
      },
      nullptr);
  for (const char* text : {"one", "two", "three"}) ASSERT_TRUE(sockets.there->send(text));
  ASSERT_EQ(enough.get_future().wait_for(patience), std::future_status::ready);
  settle();
  EXPECT_EQ(received, (std::vector<std::string>{"one", "two", "three"}));
  ASSERT_TRUE(becomesIdle()) << "waiting for datagrams is no work";
}

TEST_F(SystemNetworkTest, AReadSourceThatIsGoneIsNotCalled) {
  SocketPair sockets(*network);
  bool wasCalled = false;
  auto source = queue->createReadSource(
      *sockets.here, [&] { wasCalled = true; }, nullptr);
  source.reset();
  ASSERT_TRUE(sockets.there->send("x"));
  settle();
  settle();
  EXPECT_FALSE(wasCalled);
}

TEST_F(SystemNetworkTest, ASocketThatCannotBeWaitedOnYieldsNoSource) {
  struct Nothing final : DatagramSocket {
    int bindToAnyPort() override { return 0; }
    int connect(std::uint32_t, std::uint16_t) override { return 0; }
    bool send(std::string_view) override { return false; }
    std::optional<std::size_t> receive(std::span<char>) override { return std::nullopt; }
    int descriptor() const override { return -1; }
  } nothing;
  EXPECT_EQ(queue->createReadSource(
                nothing, [] {}, nullptr),
            nullptr);
}

TEST_F(SystemNetworkTest, TheEndDropsWhatWaitsWithAllItHolds) {
  const auto held = std::make_shared<int>(0);
  auto delayed = queue->after(1h, [held] {});
  auto timer = queue->createTimer(
      1h, [held] {}, [held] {});
  timer->keepAlive(held);
  timer->setArmed(true);
  network.reset();
  EXPECT_EQ(held.use_count(), 2) << "the cancel handler is the source's own";
  queue->async([held] {});
  EXPECT_EQ(queue->createTimer(
                1h, [] {}, nullptr),
            nullptr);
  timer->cancel();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(SystemNetworkTest, WhatATimerKeepsGoesWhenTheTimerDoes) {
  const auto held = std::make_shared<int>(0);
  const auto timer = queue->createTimer(
      1h, [] {}, nullptr);
  timer->keepAlive(held);
  EXPECT_EQ(held.use_count(), 2);
  timer->cancel();
  EXPECT_EQ(held.use_count(), 1);
}

// Times that the threads of this process were taken from a processor or gave it up.
long contextSwitches() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

TEST_F(SystemNetworkTest, AnIdleNetworkDoesNotWakeUp) {
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 10; ++i) {
    timers.push_back(queue->createTimer(
        1ms, [] {}, nullptr));
    timers.back()->setArmed(true);
  }
  settle();
  for (const auto& timer : timers) timer->setArmed(false);
  settle();
  ASSERT_TRUE(becomesIdle());
  const long before = contextSwitches();
  std::this_thread::sleep_for(100ms);  // a span to measure, not a wait for something
  EXPECT_LE(contextSwitches() - before, 2) << "this thread's own sleep";
}

}  // namespace
}  // namespace corvid
