// Preference suites: small persistent dictionaries by suite name.
//
// Threads: any. A change made from outside is seen at the next read.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"

namespace corvid {

class Preferences {
 public:
  virtual ~Preferences() = default;
  virtual std::optional<Value> value(std::string_view suite, std::string_view key) = 0;
  // False when the change could not be made durable; the reason has been logged.
  virtual bool setValue(std::string_view suite, std::string_view key, Value value) = 0;
  virtual bool removeValue(std::string_view suite, std::string_view key) = 0;
  virtual std::vector<std::string> keys(std::string_view suite) = 0;
};

// The daemon's own suite.
inline constexpr std::string_view corvidSuite = "com.halcyon.corvid";

}  // namespace corvid
