#include "platform/system/MemoryUse.h"

#include <malloc.h>

namespace corvid {

namespace {

// Above what events, batches and compression take all the time.
constexpr int leastLargeBlock = 512 * 1024;
// Of free memory at the end of a heap.
constexpr int mostKept = 1024 * 1024;

}  // namespace

void giveMemoryBack() {
  mallopt(M_MMAP_THRESHOLD, leastLargeBlock);
  mallopt(M_TRIM_THRESHOLD, mostKept);
}

}  // namespace corvid
