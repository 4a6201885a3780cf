// The posts of one device.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

#include "bench/FleetBody.h"

namespace corvid::bench {

struct DevicePost {
  std::string request;      // head and packed body
  std::uint64_t first = 0;  // the number of its first event
  bool isWrong = false;     // a collector must refuse it with a 4xx
};

// One thread.
class DevicePosts {
 public:
  // `run`: 24 characters, with which the identifiers of all devices of a run begin.
  DevicePosts(const std::string& run, std::size_t device, int events, std::string target,
              std::string host);

  // Its events have the numbers that follow those of the post before.
  DevicePost next();
  DevicePost nextWrong(std::mt19937_64& random);

  // What identifiers of a new run begin with: "XXXXXXXX-XXXX-4XXX-8XXX-".
  static std::string newRun();
  static std::string client(const std::string& run, std::size_t device);

 private:
  std::string nextBody();
  DevicePost posted(const std::string& packed, bool isWrong);

  FleetEvents _events;  // of the post after the last
  const std::string _target, _host;
};

}  // namespace corvid::bench
