// What a load of devices is.
#pragma once

#include <cstdint>
#include <string>

namespace corvid::bench {

struct FleetSetup {
  std::string url;       // where posts go: "http[s]://HOST:PORT/PATH"
  std::string caFile{};  // whom to trust; empty: the system's authorities
  // Devices, each with a connection of its own.
  std::int64_t devices = 100;
  // Posts a second of all together; 0: each device posts as soon as it was answered.
  std::int64_t rate = 0;
  std::int64_t events = 50;   // of a post
  std::int64_t seconds = 10;  // from when all have connected
  std::int64_t seed = 1;
  // Of a hundred posts: how many are cut off by the device, have a wrong body, are sent once more
  // when they were acknowledged; and of a hundred devices, how many are on slow links.
  std::int64_t dropped = 0, wrong = 0, again = 0, slow = 0;
  // Of this machine's loopback each device takes an address of its own, unless they share one.
  bool sharesAddress = false;
};

}  // namespace corvid::bench
