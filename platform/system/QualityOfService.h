// How urgent the process's work is to the scheduler.
#pragma once

namespace corvid {

enum class QualityOfServiceClass : unsigned { utility = 0x11 };

// Sets scheduling policy and nice value of the calling thread, which later threads inherit; so
// call it on the main thread before there are others. A negative priority is less urgent within
// the class. A failure is logged at debug and ignored.
void setMainThreadQualityOfService(QualityOfServiceClass qualityOfService, int relativePriority);

}  // namespace corvid
