// The error object that replies carry.
#pragma once

#include <cstdint>
#include <string>

#include "protocol/Keys.h"

namespace corvid {

struct CorvidError {
  std::string domain{kCorvidErrorDomain};
  std::int64_t code = 0;
  std::string localizedDescription;

  static CorvidError of(std::int64_t code, std::string description) {
    return {std::string(kCorvidErrorDomain), code, std::move(description)};
  }
  bool operator==(const CorvidError&) const = default;
};

}  // namespace corvid
