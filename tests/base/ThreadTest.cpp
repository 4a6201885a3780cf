#include <gtest/gtest.h>

#include <string>

#include "base/Thread.h"

namespace corvid {
namespace {

bool isBlocked(int signal) {
  sigset_t blocked;
  pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
  return sigismember(&blocked, signal) == 1;
}

TEST(Thread, BlocksSignalsSaveThoseOfItsFaultsAndLeavesTheStarterAsItWas) {
  bool takesTerm = true, takesPipe = true, takesFault = false;
  startThread("corvid-test", [&] {
    takesTerm = !isBlocked(SIGTERM);
    takesPipe = !isBlocked(SIGPIPE);
    takesFault = !isBlocked(SIGSEGV);
  }).join();
  EXPECT_FALSE(takesTerm);
  EXPECT_FALSE(takesPipe);
  EXPECT_TRUE(takesFault);
  EXPECT_FALSE(isBlocked(SIGTERM));
}

TEST(Thread, HasItsName) {
  char name[16] = "";
  startThread("corvid-test", [&] { pthread_getname_np(pthread_self(), name, sizeof name); }).join();
  EXPECT_EQ(std::string(name), "corvid-test");
}

TEST(SignalsBlocked, GivesBackWhatWasBlockedBefore) {
  const SignalsBlocked outer;
  { const SignalsBlocked inner; }
  EXPECT_TRUE(isBlocked(SIGTERM));
}

}  // namespace
}  // namespace corvid
