// What the parts of a gateway cost alone.
#pragma once

#include <chrono>

namespace corvid::bench {

// Prints a line for each part, measured on posts of so many events: inflate, the check of the JSON,
// a library's reader for comparison, SHA-256.
void measureGatewayParts(int events);

// The time that this thread has had: other programs may want the processors too.
std::chrono::nanoseconds threadTime();

inline double inMicros(std::chrono::nanoseconds time) {
  return std::chrono::duration<double, std::micro>(time).count();
}

}  // namespace corvid::bench
