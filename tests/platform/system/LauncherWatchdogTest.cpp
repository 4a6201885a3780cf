// The launcher's watchdog: when it is fed, and when not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "platform/system/Launcher.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/FakeClock.h"
#include "tests/platform/system/NotifySocket.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;

constexpr auto fed = "WATCHDOG=1";
constexpr auto nothing = "(nothing)";
constexpr auto silence = "main: The loop of test does not answer; the watchdog is not fed";

class LauncherWatchdog : public testing::Test {
 protected:
  LauncherWatchdog() { setenv("WATCHDOG_USEC", "2000000", 1); }
  ~LauncherWatchdog() override {
    if (_main) {
      _launcher->requestStop();
      _main->join();
    }
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
  }

  // Returns when the first beat is over.
  void runLoop(std::chrono::seconds idleExit = 0s) {
    _launcher.emplace(clock);
    _launcher->watch(loop);
    _main.emplace([this, idleExit] { _launcher->runLoop(idleExit, [] { return false; }); });
    EXPECT_TRUE(clock->awaitSleeper(1s));
  }
  // Returns when the beat that comes then is over.
  void passOneSecond() {
    clock->advance(1s);
    EXPECT_TRUE(clock->awaitSleeper(1s));
  }

  const std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  const ScratchFolder scratch;
  const NotifySocket socket{scratch.path() + "/notify"};
  CapturedLog log;
  int woken = 0;
  Heartbeat loop{"test", [this] { ++woken; }};

 private:
  std::optional<Launcher> _launcher;
  std::optional<std::thread> _main;
};

TEST_F(LauncherWatchdog, IsFedAtHalfItsInterval) {
  runLoop();
  EXPECT_EQ(socket.received(), fed);
  EXPECT_EQ(socket.received(), nothing);
  clock->advance(999ms);
  EXPECT_EQ(socket.received(), nothing);
  clock->advance(1ms);
  ASSERT_TRUE(clock->awaitSleeper(1s));
  EXPECT_EQ(socket.received(), fed);
  passOneSecond();
  EXPECT_EQ(socket.received(), fed);
}

TEST_F(LauncherWatchdog, EachLoopThatRunsIsWokenAtEachBeat) {
  const Heartbeat::Running running(loop);
  runLoop();
  loop.beat();
  passOneSecond();
  loop.beat();
  EXPECT_EQ(woken, 2);
}

TEST_F(LauncherWatchdog, IsNotFedWhileALoopDoesNotAnswerWhichOneLineSays) {
  const Heartbeat::Running running(loop);
  runLoop();
  EXPECT_EQ(socket.received(), fed) << "it has not been asked";
  for (int beat = 0; beat < 3; ++beat) {
    passOneSecond();
    EXPECT_EQ(socket.received(), nothing);
  }
  EXPECT_EQ(log.count(LogLevel::error, silence), 1);
  loop.beat();
  passOneSecond();
  EXPECT_EQ(socket.received(), fed);
  passOneSecond();
  EXPECT_EQ(socket.received(), nothing);
  EXPECT_EQ(log.count(LogLevel::error, silence), 2);
}

TEST_F(LauncherWatchdog, ALoopThatDoesNotRunIsNotWaitedFor) {
  runLoop();
  passOneSecond();
  EXPECT_EQ(socket.received(), fed);
  EXPECT_EQ(socket.received(), fed);
  EXPECT_EQ(woken, 0);
}

TEST_F(LauncherWatchdog, DoesNotPutOffTheIdleExit) {
  runLoop(3s);
  passOneSecond();
  passOneSecond();
  clock->advance(1s);
  std::string last;
  EXPECT_TRUE(waitUntil([&] {
    const std::string message = socket.received();
    if (message != nothing) last = message;
    return last == "STOPPING=1";
  })) << last;
}

TEST_F(LauncherWatchdog, IsFedWhereTheVariablesNameThisProcess) {
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  runLoop();
  EXPECT_EQ(socket.received(), fed);
}

// In a loop that ends by itself, since nothing else makes it look at the clock.
class LauncherWithoutWatchdog
    : public LauncherWatchdog,
      public testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(LauncherWithoutWatchdog, NothingIsFedAndNoLoopIsAsked) {
  const auto& [microseconds, process] = GetParam();
  unsetenv("WATCHDOG_USEC");
  if (*microseconds) setenv("WATCHDOG_USEC", microseconds, 1);
  if (*process) setenv("WATCHDOG_PID", process, 1);
  const Heartbeat::Running running(loop);
  Launcher launcher(clock);
  launcher.watch(loop);
  launcher.runLoop(5s, [&] {
    clock->advance(1s);
    return false;
  });
  EXPECT_EQ(socket.received(), "STOPPING=1");
  EXPECT_EQ(woken, 0);
}

INSTANTIATE_TEST_SUITE_P(Variables, LauncherWithoutWatchdog,
                         testing::Values(std::pair{"", ""}, std::pair{"2000000", "1"},
                                         std::pair{"2000000", "x"}, std::pair{"0", ""},
                                         std::pair{"-1", ""}, std::pair{"2s", ""}));

}  // namespace
}  // namespace corvid
