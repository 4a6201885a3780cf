// What waking threads costs by itself, however little they do.
#pragma once

#include <vector>

namespace corvid::bench {

// Microseconds from one thread's write to another's and on to a third one's read, as an event goes
// from a caller to the daemon and its answer to the library: `count` of them, 200 a second.
std::vector<double> measureHandOvers(int count);

}  // namespace corvid::bench
