// The daemon's own account of its events.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid::soak {

// The words are "refused.404", "failed.tls", "dropped.notFlushed" and the like.
struct Ledger {
  std::int64_t accepted = 0;
  std::int64_t delivered = 0;
  std::int64_t held = 0;
  std::int64_t underWay = 0;
  std::map<std::string, std::int64_t> words{};

  // As `corvidctl status --json` has it under "ledger".
  static Ledger of(const Dictionary& status);
  std::int64_t count(std::string_view word) const;
  bool adds() const;
  Ledger since(const Ledger& before) const;
};

}  // namespace corvid::soak
