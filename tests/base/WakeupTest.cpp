#include <gtest/gtest.h>
#include <poll.h>

#include "base/Thread.h"
#include "base/Wakeup.h"

namespace corvid {
namespace {

bool isReadable(const Wakeup& wakeup, int milliseconds = 0) {
  pollfd waiting{wakeup.descriptor(), POLLIN, 0};
  return poll(&waiting, 1, milliseconds) == 1;
}

TEST(Wakeup, IsReadableFromWakeToDrainHoweverOftenItIsWoken) {
  const Wakeup wakeup;
  EXPECT_FALSE(isReadable(wakeup));
  wakeup.wake();
  wakeup.wake();
  EXPECT_TRUE(isReadable(wakeup));
  wakeup.drain();
  EXPECT_FALSE(isReadable(wakeup));
  wakeup.drain();  // of nothing: does not block
}

TEST(Wakeup, EndsTheWaitOfAnotherThread) {
  const Wakeup wakeup;
  bool wasWoken = false;
  std::thread sleeper = startThread("sleeper", [&] { wasWoken = isReadable(wakeup, 20'000); });
  wakeup.wake();
  sleeper.join();
  EXPECT_TRUE(wasWoken);
}

}  // namespace
}  // namespace corvid
