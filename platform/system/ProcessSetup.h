// What the process asks of the system for itself, on its main thread before there are others.
#pragma once

namespace corvid {

enum class QualityOfServiceClass : unsigned { utility = 0x11 };

// Sets scheduling policy and nice value of the main thread, which later threads inherit. A negative
// priority is less urgent within the class. A failure is logged at debug and ignored.
void setMainThreadQualityOfService(QualityOfServiceClass qualityOfService, int relativePriority);

int processNumber();

// Gives up every capability, for good: also those that a program started later could have. Where
// there were some, a debug line says what the process still is. A failure is logged as an error.
void giveUpCapabilities();

// Raises the limit of open descriptors as far as the system lets it, up to what the most clients
// need.
void raiseDescriptorLimit();

// Has large blocks given back as soon as they are free, whichever thread had them. The allocator
// would otherwise learn from the first large message to keep such blocks, some for each thread, for
// as long as the process lives.
void giveMemoryBack();

}  // namespace corvid
