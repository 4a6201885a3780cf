// A number for everything that happened, in its order.
#pragma once

#include <cstdint>
#include <string_view>

namespace corvid::simulation {

// FNV-1a, 64 bits: the same on every machine.
class TraceHash {
 public:
  void add(std::string_view text) {
    for (const char c : text) _value = (_value ^ static_cast<std::uint8_t>(c)) * 1099511628211u;
    _value = (_value ^ 0xff) * 1099511628211u;
  }
  std::uint64_t value() const { return _value; }

 private:
  std::uint64_t _value = 14695981039346656037u;
};

}  // namespace corvid::simulation
