// Posts of a fleet as its gateway gets them, and the connections that make them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/Descriptor.h"

namespace corvid::bench {

struct FleetPost {
  std::string body;     // as docs/posts.md has it
  std::string packed;   // the same as gzip, at zlib's usual level
  std::string request;  // the whole HTTP request with the packed body
};

// No two are the same.
std::vector<FleetPost> makeFleetPosts(std::size_t count, int eventsEach);

// A connection to a port of this machine, which stays open. Throws std::runtime_error.
Descriptor connectTo(std::uint16_t port);

struct Posting {
  std::size_t posts = 0;
  double seconds = 0;
  std::vector<double> latencyMicros;  // of each post
};
// Makes posts over so many connections, one after the other on each, for so long. Throws
// std::runtime_error where one is not answered 200.
Posting makePosts(std::uint16_t port, const std::vector<FleetPost>& posts, int connections,
                  std::chrono::milliseconds duration);

}  // namespace corvid::bench
