#include "platform/system/ProcessSetup.h"

#include <malloc.h>
#include <sched.h>
#include <sys/resource.h>

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

void giveMemoryBack() {
  mallopt(M_MMAP_THRESHOLD, leastLargeBlock);
  mallopt(M_TRIM_THRESHOLD, mostKept);
}

}  // namespace corvid
