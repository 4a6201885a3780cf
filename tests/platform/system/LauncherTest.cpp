#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include "base/UnixAddress.h"
#include "platform/system/Launcher.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/fakes/FakeClock.h"
#include "tests/platform/system/NotifySocket.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using namespace std::chrono_literals;

class LauncherTest : public testing::Test {
 protected:
  // On a thread that nobody waits for: a loop that does not end outlives its test.
  std::future<int> runLoop(std::chrono::seconds idleExit, std::function<bool()> busy) {
    std::promise<int> status;
    std::future<int> loop = status.get_future();
    std::thread([idleExit, busy = std::move(busy), shared = _launcher, asking = _asking,
                 status = std::move(status)]() mutable {
      status.set_value(shared->runLoop(idleExit, [&] {
        const std::lock_guard lock(*asking);
        return busy();
      }));
    }).detach();
    return loop;
  }

  static bool hasEnded(const std::future<int>& loop) {
    return loop.wait_for(0s) == std::future_status::ready;
  }
  // Waits for the end. A loop that goes on asks nobody from then on.
  bool ends(const std::future<int>& loop) {
    if (loop.wait_for(patience) == std::future_status::ready) return true;
    _asking->lock();
    return false;
  }

  std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();

 private:
  const std::shared_ptr<Launcher> _launcher = std::make_shared<Launcher>(clock);
  const std::shared_ptr<std::mutex> _asking = std::make_shared<std::mutex>();

 protected:
  Launcher& launcher = *_launcher;
};

TEST_F(LauncherTest, RunLoopEndsWhenTheIdleTimeHasPassedWhereNobodyEverConnected) {
  int asked = 0;
  std::future<int> loop = runLoop(60s, [&] {
    ++asked;
    clock->advance(asked == 1 ? 60s - 1ms : 1ms);
    return false;
  });
  ASSERT_TRUE(ends(loop));
  EXPECT_EQ(loop.get(), 0);
  EXPECT_EQ(asked, 2);
}

TEST_F(LauncherTest, RunLoopCountsFromTheLastMomentOfOtherWork) {
  int asked = 0;
  const std::future<int> loop = runLoop(60s, [&] {
    ++asked;
    if (asked == 1) {
      clock->advance(1000s);
      launcher.workEnded();
      clock->advance(60s - 1ms);
    } else {
      clock->advance(1ms);
    }
    return false;
  });
  ASSERT_TRUE(ends(loop));
  EXPECT_EQ(asked, 2);
}

TEST_F(LauncherTest, RunLoopCountsFromTheEndOfTheLastTransaction) {
  launcher.beginTransaction();
  int asked = 0;
  std::future<int> loop = runLoop(60s, [&] {
    ++asked;
    clock->advance(asked == 1 ? 60s - 1ms : 1ms);
    return false;
  });
  clock->advance(1000s);
  launcher.endTransaction();
  ASSERT_TRUE(ends(loop));
  EXPECT_EQ(loop.get(), 0);
  EXPECT_EQ(asked, 2);
}

TEST_F(LauncherTest, RunLoopAsksNobodyWhileATransactionIsOpen) {
  launcher.beginTransaction();
  launcher.beginTransaction();
  std::atomic<int> asked{0};
  std::future<int> loop = runLoop(60s, [&] {
    ++asked;
    clock->advance(60s);
    return false;
  });
  clock->advance(1000s);
  launcher.workEnded();
  launcher.endTransaction();
  // The loop is awake, if at all, for this moment only.
  EXPECT_EQ(loop.wait_for(20ms), std::future_status::timeout);
  EXPECT_EQ(asked, 0);
  launcher.endTransaction();
  ASSERT_TRUE(ends(loop));
  EXPECT_EQ(asked, 1);
}

TEST_F(LauncherTest, RunLoopWaitsForOtherWorkUntilItHasEnded) {
  std::atomic<bool> isBusy{true};
  std::atomic<int> asked{0};
  std::future<int> loop = runLoop(60s, [&] {
    ++asked;
    clock->advance(3600s);
    return isBusy.load();
  });
  ASSERT_TRUE(waitUntil([&] { return asked >= 20; }));
  EXPECT_FALSE(hasEnded(loop));
  isBusy = false;
  launcher.workEnded();
  ASSERT_TRUE(ends(loop));
  EXPECT_EQ(loop.get(), 0);
}

TEST_F(LauncherTest, WorkMayEndUnderTheLockThatBusyTakes) {
  std::mutex mutex;
  std::atomic<bool> isBusy{true};
  std::atomic<int> asked{0};
  std::thread worker([&] {
    while (isBusy) {
      const std::lock_guard lock(mutex);
      launcher.workEnded();
    }
  });
  std::future<int> loop = runLoop(60s, [&] {
    const std::lock_guard lock(mutex);
    ++asked;
    clock->advance(60s);
    return isBusy.load();
  });
  EXPECT_TRUE(waitUntil([&] { return asked >= 100; }));
  isBusy = false;
  worker.join();
  EXPECT_TRUE(ends(loop));
}

TEST_F(LauncherTest, TransactionIsRefusedOnceTheRunLoopHasDecidedToReturn) {
  EXPECT_TRUE(launcher.tryBeginTransaction());
  launcher.endTransaction();
  const std::future<int> loop = runLoop(1s, [&] {
    clock->advance(1s);
    return false;
  });
  ASSERT_TRUE(ends(loop));
  EXPECT_FALSE(launcher.tryBeginTransaction());
}

TEST_F(LauncherTest, TransactionThatBeginsBeforeTheDecisionKeepsTheProcess) {
  std::promise<void> askedOnce;
  int asked = 0;
  std::future<int> loop = runLoop(60s, [&] {
    clock->advance(60s);
    if (++asked == 1) {
      EXPECT_TRUE(launcher.tryBeginTransaction());
      askedOnce.set_value();
    }
    return false;
  });
  ASSERT_EQ(askedOnce.get_future().wait_for(patience), std::future_status::ready);
  EXPECT_EQ(loop.wait_for(20ms), std::future_status::timeout);
  launcher.endTransaction();
  EXPECT_TRUE(ends(loop));
}

TEST(LauncherRunLoop, WithoutIdleTimeDoesNotReturn) {
  // In a child and never destroyed, since nothing ends this loop.
  const std::optional<int> status = inChild([] {
    auto clock = std::make_shared<FakeClock>();
    Launcher& launcher = *new Launcher(clock);
    std::thread([&] { launcher.runLoop(0s, [] { return false; }); }).detach();
    for (int i = 0; i < 50; ++i) {
      clock->advance(1000h);
      launcher.beginTransaction();
      launcher.endTransaction();
      launcher.workEnded();
      std::this_thread::sleep_for(1ms);
      if (!launcher.tryBeginTransaction()) return 1;
      launcher.endTransaction();
    }
    return 0;
  });
  EXPECT_EQ(status, 0);
}

TEST(LauncherNotification, ReachesASocketInTheFileSystem) {
  const ScratchFolder scratch;
  const NotifySocket socket(scratch.path() + "/notify");
  Launcher launcher(std::make_shared<FakeClock>());
  launcher.notifyReady("No clients");
  EXPECT_EQ(socket.received(), "READY=1\nSTATUS=No clients");
  launcher.notifyStatus("2 clients");
  EXPECT_EQ(socket.received(), "STATUS=2 clients");
}

TEST(LauncherNotification, ReachesAnAbstractSocket) {
  const NotifySocket socket("@corvid-launcher-test-" + std::to_string(getpid()));
  Launcher launcher(std::make_shared<FakeClock>());
  launcher.notifyReady("Here");
  EXPECT_EQ(socket.received(), "READY=1\nSTATUS=Here");
}

TEST(LauncherNotification, KeepsAStatusOnItsLine) {
  const ScratchFolder scratch;
  const NotifySocket socket(scratch.path() + "/notify");
  Launcher(std::make_shared<FakeClock>()).notifyStatus("a\nMAINPID=1");
  EXPECT_EQ(socket.received(), "STATUS=a MAINPID=1");
}

TEST(LauncherNotification, TellsOfTheIdleExit) {
  const ScratchFolder scratch;
  const NotifySocket socket(scratch.path() + "/notify");
  auto clock = std::make_shared<FakeClock>();
  Launcher(clock).runLoop(1s, [&] {
    clock->advance(1s);
    return false;
  });
  EXPECT_EQ(socket.received(), "STOPPING=1");
}

int nextDescriptor() { return Descriptor(open("/dev/null", O_RDONLY)).get(); }

TEST(LauncherNotification, WithoutAListenerIsSilentAndKeepsNoSocket) {
  const CapturedLog log;
  const int next = nextDescriptor();
  for (const char* name : {"", "/nonexistent/socket", "relative", "@", "@corvid-nobody-is-here"}) {
    setenv("NOTIFY_SOCKET", name, 1);
    Launcher launcher(std::make_shared<FakeClock>());
    launcher.notifyReady("Here");
    EXPECT_EQ(nextDescriptor(), next) << name;
  }
  unsetenv("NOTIFY_SOCKET");
  EXPECT_TRUE(log.lines().empty());
}

TEST(LauncherNotification, GoesToNoRelativeName) {
  const ScratchFolder scratch;
  const auto before = std::filesystem::current_path();
  std::filesystem::current_path(scratch.path());
  const NotifySocket socket("notify");
  Launcher(std::make_shared<FakeClock>()).notifyReady("Here");
  std::filesystem::current_path(before);
  EXPECT_EQ(socket.received(), "(nothing)");
}

TEST(LauncherNotification, CutsNoNameThatIsTooLong) {
  const ScratchFolder scratch;
  std::string name = scratch.path() + "/";
  name.resize(sizeof sockaddr_un::sun_path - 1, 'x');
  const NotifySocket socket(name);
  setenv("NOTIFY_SOCKET", (name + "more").c_str(), 1);
  Launcher(std::make_shared<FakeClock>()).notifyReady("Here");
  EXPECT_EQ(socket.received(), "(nothing)");
}

TEST(LauncherNotification, DoesNotBlockOnAListenerThatDoesNotRead) {
  CapturedLog log;
  const ScratchFolder scratch;
  const NotifySocket socket(scratch.path() + "/notify");
  Launcher launcher(std::make_shared<FakeClock>());
  for (int i = 0; i < 100'000 && log.lines().empty(); ++i) launcher.notifyStatus("again");
  EXPECT_TRUE(log.anyContains("main: cannot notify the launcher: "));
}

// Runs `check` in a child that was started with these descriptors, from 3 on.
std::optional<int> startedWith(const std::vector<int>& descriptors,
                               const std::function<int(Launcher&)>& check,
                               const char* pid = nullptr) {
  return inChild([&] {
    std::vector<int> copies;
    for (const int descriptor : descriptors) copies.push_back(fcntl(descriptor, F_DUPFD, 100));
    for (std::size_t i = 0; i < copies.size(); ++i)
      if (dup2(copies[i], 3 + static_cast<int>(i)) < 0) return 101;
    setenv("LISTEN_PID", pid != nullptr ? pid : std::to_string(getpid()).c_str(), 1);
    setenv("LISTEN_FDS", std::to_string(descriptors.size()).c_str(), 1);
    Launcher launcher(std::make_shared<FakeClock>());
    return check(launcher);
  });
}

class LauncherSockets : public testing::Test {
 protected:
  LauncherSockets() : listening(socket(AF_UNIX, SOCK_STREAM, 0)), plain(open("/dev/null", 0)) {
    EXPECT_EQ(UnixAddress(scratch.path() + "/socket").bind(listening.get()), 0);
    EXPECT_EQ(listen(listening.get(), 1), 0);
  }
  ScratchFolder scratch;
  Descriptor listening;
  Descriptor plain;
};

TEST_F(LauncherSockets, ListeningSocketIsTakenOnceAndNotInherited) {
  EXPECT_EQ(startedWith({listening.get()},
                        [](Launcher& launcher) {
                          if (!launcher.isSocketActivated()) return 1;
                          const Descriptor taken = launcher.takeListeningSocket();
                          if (taken.get() != 3 || (fcntl(3, F_GETFD) & FD_CLOEXEC) == 0) return 2;
                          if (launcher.takeListeningSocket()) return 3;
                          return launcher.isSocketActivated() ? 0 : 4;
                        }),
            0);
}

TEST_F(LauncherSockets, SocketForAnotherProcessIsLeftAlone) {
  for (const char* pid : {"1", "", "x", "99999999999"})
    EXPECT_EQ(
        startedWith(
            {listening.get()},
            [](Launcher& launcher) {
              const bool isOpen = fcntl(3, F_GETFD) >= 0;
              return !launcher.isSocketActivated() && !launcher.takeListeningSocket() && isOpen ? 0
                                                                                                : 1;
            },
            pid),
        0)
        << pid;
}

TEST_F(LauncherSockets, WhatIsNoListeningUnixSocketIsClosedWithAWarning) {
  EXPECT_EQ(startedWith({plain.get(), listening.get(), plain.get()},
                        [](Launcher& launcher) {
                          const Descriptor taken = launcher.takeListeningSocket();
                          if (taken.get() != 4) return 1;
                          return fcntl(3, F_GETFD) < 0 && fcntl(5, F_GETFD) < 0 ? 0 : 2;
                        }),
            0);
  EXPECT_EQ(inChild([&] {
              CapturedLog log;
              if (dup2(plain.get(), 3) < 0) return 101;
              setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
              setenv("LISTEN_FDS", "1", 1);
              Launcher launcher(std::make_shared<FakeClock>());
              return log.has(LogLevel::warning,
                             "main: Descriptor 3 passed by the launcher is of no use and is closed")
                         ? 0
                         : 1;
            }),
            0);
}

TEST_F(LauncherSockets, CountThatIsNoNumberPassesNothing) {
  EXPECT_EQ(inChild([&] {
              if (dup2(listening.get(), 3) < 0) return 101;
              setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
              for (const char* count : {"-1", "", "1x", "99999999999"}) {
                setenv("LISTEN_FDS", count, 1);
                if (Launcher(std::make_shared<FakeClock>()).isSocketActivated()) return 1;
              }
              return 0;
            }),
            0);
}

}  // namespace
}  // namespace corvid
