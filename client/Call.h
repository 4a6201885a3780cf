// One call of the host on its way to the daemon and back.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "client/Completion.h"
#include "client/Request.h"
#include "protocol/wire/Extent.h"

namespace corvid::library {

// Ends exactly once for the host, with what the daemon answered or with an error.
//
// Threads: made on the host's, then the serving thread's alone.
struct Call {
  using Time = std::chrono::steady_clock::time_point;

  Call(Request asked, Completion ending, const wire::Extent& size)
      : request(std::move(asked)), completion(ending), extent(size) {}
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  const Request request;
  const Completion completion;
  const wire::Extent extent;  // of what it carries
  Time expires = Time::max();
  bool hasEnded = false;
};

using SharedCall = std::shared_ptr<Call>;

// What travels in one remote call: events, or one call of another kind.
struct Parcel {
  std::vector<SharedCall> calls;

  bool isBatch() const { return calls.front()->request.isEvent(); }
};

// What the application wished and a new connection is told before anything else.
struct Wishes {
  std::shared_ptr<const Request> sessionInfo{};
  bool startConfig = false;

  // Takes over what lasts of the request.
  void note(const Request& request);
  // As calls that nobody waits for.
  std::vector<SharedCall> calls() const;
};

}  // namespace corvid::library
