// What devices of a fleet post, byte for byte in the form of docs/posts.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvid::bench {

struct FleetEvents {
  std::string client = "DAE71BE7-ACC1-4DAE-8443-D4DC4A19B73C";  // the post's clientId
  std::string session = "URjmgAZ/RKyN8cUmbbz2ww==";
  std::uint64_t start = 1795255260;  // of the session, seconds since 1970
  double sinceStart = 2.334619;      // seconds, of the post and its events
  std::uint64_t first = 1;           // number of the first event, which stands under "sequence"
  int count = 50;
  std::uint64_t look = 0;  // other values look otherwise, so that they compress as real ones do
};

// The body of a post.
std::string fleetBody(const FleetEvents& events);
// A request with its body. `headers` are further lines, each with its end.
std::string postRequest(std::string_view target, std::string_view host, std::string_view headers,
                        std::string_view packed);

}  // namespace corvid::bench
