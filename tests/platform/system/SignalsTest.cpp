#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>

#include "platform/system/Signals.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

// Each in a child, which alone takes its signals so.

TEST(Signals, EachIsHeardOf) {
  EXPECT_EQ(inChild([] {
              Signals signals;
              std::atomic<int> heard{0};
              kill(getpid(), SIGHUP);
              signals.watch([&](int signal) { heard = signal; });
              if (!waitUntil([&] { return heard == SIGHUP; })) return 1;
              kill(getpid(), SIGTERM);
              return waitUntil([&] { return heard == SIGTERM; }) ? 0 : 2;
            }),
            0);
}

TEST(Signals, TheirLoopAnswersAndGoesOn) {
  EXPECT_EQ(inChild([] {
              Signals signals;
              std::atomic<int> heard{0};
              signals.heartbeat().ask();
              if (!signals.heartbeat().hasAnswered()) return 1;  // it does not run yet
              signals.watch([&](int signal) { heard = signal; });
              kill(getpid(), SIGHUP);
              if (!waitUntil([&] { return heard == SIGHUP; })) return 2;
              signals.heartbeat().ask();
              if (!waitUntil([&] { return signals.heartbeat().hasAnswered(); })) return 3;
              kill(getpid(), SIGTERM);
              return waitUntil([&] { return heard == SIGTERM; }) ? 0 : 4;
            }),
            0);
}

TEST(Signals, TheirLoopDoesNotAnswerWhileItIsHeldUp) {
  EXPECT_EQ(inChild([] {
              Signals signals;
              std::atomic<bool> isHeldUp{false}, mayGoOn{false};
              signals.watch([&](int) {
                isHeldUp = true;
                while (!mayGoOn) usleep(1000);
              });
              kill(getpid(), SIGHUP);
              if (!waitUntil([&] { return isHeldUp.load(); })) return 1;
              signals.heartbeat().ask();
              if (waitUntil([&] { return signals.heartbeat().hasAnswered(); },
                            std::chrono::milliseconds(50)))
                return 2;
              mayGoOn = true;
              return waitUntil([&] { return signals.heartbeat().hasAnswered(); }) ? 0 : 3;
            }),
            0);
}

}  // namespace
}  // namespace corvid
