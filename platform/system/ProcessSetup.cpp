#include "platform/system/ProcessSetup.h"

#include <linux/capability.h>
#include <malloc.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "base/Log.h"

namespace corvid {

namespace {

// Utility work gives way to what people wait for, yet clients wait for its replies: a third of an
// ordinary thread's share where the processor is contended, and no batch policy, which would delay
// the wake-ups.
constexpr int niceOfUtility = 5;

// In bytes: above what events, batches and compression take all the time.
constexpr int leastLargeBlock = 512 * 1024;
// In bytes, of free memory at the end of a heap.
constexpr int mostKept = 1024 * 1024;

constexpr rlim_t wantedDescriptors = 4096;

using CapabilityData = std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3>;

bool hasCapabilities(__user_cap_header_struct header) {
  CapabilityData held{};
  return syscall(SYS_capget, &header, held.data()) == 0 &&
         std::ranges::any_of(held, [](const auto& word) { return word.permitted != 0; });
}

}  // namespace

void setMainThreadQualityOfService(QualityOfServiceClass qualityOfService, int relativePriority) {
  const sched_param parameters{};
  if (sched_setscheduler(0, SCHED_OTHER, &parameters) != 0)
    logDebug("main: cannot set the scheduling policy: {}", std::strerror(errno));
  const int nice = niceOfUtility - relativePriority;
  if (setpriority(PRIO_PROCESS, 0, nice) != 0)
    logDebug("main: cannot set the nice value {} of quality-of-service class {:#x}: {}", nice,
             static_cast<unsigned>(qualityOfService), std::strerror(errno));
}

int processNumber() { return getpid(); }

void giveUpCapabilities() {
  const __user_cap_header_struct self{_LINUX_CAPABILITY_VERSION_3, 0};
  if (!hasCapabilities(self)) return;
  // The last one that the kernel knows is the last that can be asked for.
  for (unsigned long capability = 0; prctl(PR_CAPBSET_READ, capability, 0, 0, 0) >= 0; ++capability)
    prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
  __user_cap_header_struct header = self;
  const CapabilityData none{};
  if (syscall(SYS_capset, &header, none.data()) != 0)
    logError("main: Cannot give up the capabilities: {}", std::strerror(errno));
  else
    logDebug(
        "main: Gave up all capabilities; corvidd is still user {} and may do what its files allow",
        geteuid());
}

void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= wantedDescriptors) return;
  limit.rlim_cur = std::min(limit.rlim_max, wantedDescriptors);
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
    logDebug("main: cannot raise the limit of open descriptors: {}", std::strerror(errno));
}

void giveMemoryBack() {
  mallopt(M_MMAP_THRESHOLD, leastLargeBlock);
  mallopt(M_TRIM_THRESHOLD, mostKept);
}

}  // namespace corvid
