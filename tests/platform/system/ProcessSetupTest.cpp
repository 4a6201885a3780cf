#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>

#include <thread>

#include "platform/system/ProcessSetup.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/ChildProcess.h"

namespace corvid {
namespace {

int niceValue() { return getpriority(PRIO_PROCESS, 0); }

TEST(QualityOfService, OfUtilityWorkIsMildlyNiceAndInherited) {
  const std::optional<int> status = inChild([] {
    setMainThreadQualityOfService(QualityOfServiceClass::utility, 0);
    int inherited = -1;
    std::thread([&] { inherited = niceValue(); }).join();
    return niceValue() == 5 && inherited == 5 && sched_getscheduler(0) == SCHED_OTHER ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

TEST(QualityOfService, WithLessPriorityIsNicer) {
  const std::optional<int> status = inChild([] {
    setMainThreadQualityOfService(QualityOfServiceClass::utility, -3);
    return niceValue();
  });
  EXPECT_EQ(status, 8);
}

TEST(QualityOfService, ThatCannotBeSetIsLoggedAtDebugAndIgnored) {
  if (getuid() != 0) GTEST_SKIP() << "takes root, to give a right up";
  const std::optional<int> status = inChild([] {
    CapturedLog log;
    setMainThreadQualityOfService(QualityOfServiceClass::utility, -3);
    if (setuid(4712) != 0) return 2;
    log.clear();
    setMainThreadQualityOfService(QualityOfServiceClass::utility, 0);
    return log.lines().size() == 1 && log.has(LogLevel::debug,
                                              "main: cannot set the nice value 5 of "
                                              "quality-of-service class 0x11: Permission denied")
               ? niceValue()
               : 3;
  });
  EXPECT_EQ(status, 8);
}

}  // namespace
}  // namespace corvid
