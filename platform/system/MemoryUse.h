// How the process's memory goes back to the system.
#pragma once

namespace corvid {

// Has large blocks given back as soon as they are free, whichever thread had them. The allocator
// would otherwise learn from the first large message to keep such blocks, some for each thread, for
// as long as the process lives. Call it before there are other threads.
void giveMemoryBack();

}  // namespace corvid
