// What one packet costs this process, built and sent by a dashboard backend, beside a bare send of
// the same bytes.
#pragma once

#include <cstddef>

namespace corvid::bench {

// CPU of all threads that the sender has, microseconds a packet: medians over the rounds, in which
// the kinds take turns. A packet has arrived, or was acknowledged, before the next but 39 leaves.
struct SendingCost {
  std::size_t bytes = 0;  // of a packet
  double build = 0;       // the packet and its log line
  double bareSend = 0;
  double plain = 0;     // by a backend: build, hand over, send
  double reliable = 0;  // and keep, receive the acknowledgement, let go
};

// A round is so many packets of each kind.
SendingCost measureSending(int packets, int rounds);

}  // namespace corvid::bench
