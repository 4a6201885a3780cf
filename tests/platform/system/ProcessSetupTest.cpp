#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

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

// The four masks of the process, and that of the programs it could start, as the kernel tells them.
std::vector<std::string> capabilityMasks() {
  std::ifstream status("/proc/self/status");
  std::vector<std::string> masks;
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("Cap")) masks.push_back(line.substr(line.find('\t') + 1));
  return masks;
}

TEST(Capabilities, AreGivenUpForGood) {
  if (getuid() != 0) GTEST_SKIP() << "takes root, to have some";
  const std::optional<int> status = inChild([] {
    CapturedLog log;
    giveUpCapabilities();
    for (const std::string& mask : capabilityMasks())
      if (mask.find_first_not_of('0') != std::string::npos) return 1;
    return log.has(LogLevel::debug,
                   "main: Gave up all capabilities; corvidd is still user 0 and may do what its "
                   "files allow")
               ? 0
               : 2;
  });
  EXPECT_EQ(status, 0);
}

TEST(Capabilities, OfWhoHasNoneAreNoNews) {
  const std::optional<int> status = inChild([] {
    giveUpCapabilities();
    CapturedLog log;
    giveUpCapabilities();
    return log.lines().empty() ? 0 : 1;
  });
  EXPECT_EQ(status, 0);
}

TEST(DescriptorLimit, IsRaisedUpToTheHardLimitAndNeverLowered) {
  const auto raisedFrom = [](rlim_t soft, rlim_t hard) {
    const std::optional<int> status = inChild([=] {
      const rlimit before{soft, hard};
      if (setrlimit(RLIMIT_NOFILE, &before) != 0) return 0;
      raiseDescriptorLimit();
      rlimit after{};
      getrlimit(RLIMIT_NOFILE, &after);
      return static_cast<int>(after.rlim_cur / 100);
    });
    return status.value_or(0) * 100;
  };
  EXPECT_EQ(raisedFrom(200, 20000), 4000);
  EXPECT_EQ(raisedFrom(200, 900), 900);
  EXPECT_EQ(raisedFrom(8000, 9000), 8000);
}

}  // namespace
}  // namespace corvid
