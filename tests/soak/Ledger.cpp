#include "tests/soak/Ledger.h"

#include <fmt/format.h>

#include "base/Reading.h"

namespace corvid::soak {

Ledger Ledger::of(const Dictionary& status) {
  Ledger ledger;
  ledger.accepted = integerAt(status, "accepted").value_or(-1);
  ledger.delivered = integerAt(status, "delivered").value_or(0);
  ledger.held = integerAt(status, "held").value_or(0);
  ledger.underWay = integerAt(status, "underWay").value_or(0);
  for (const char* const outcome : {"refused", "failed", "dropped"})
    if (const Dictionary* const words = dictionaryAt(status, outcome))
      for (const auto& [word, count] : *words)
        if (*count.integer() != 0)
          ledger.words[fmt::format("{}.{}", outcome, word)] = *count.integer();
  return ledger;
}

std::int64_t Ledger::count(std::string_view word) const {
  const auto found = words.find(std::string(word));
  return found == words.end() ? 0 : found->second;
}

bool Ledger::adds() const {
  std::int64_t sum = delivered + held + underWay;
  for (const auto& [word, count] : words) sum += count;
  return sum == accepted;
}

Ledger Ledger::since(const Ledger& before) const {
  Ledger difference = *this;
  difference.accepted -= before.accepted;
  difference.delivered -= before.delivered;
  for (auto& [word, count] : difference.words) count -= before.count(word);
  std::erase_if(difference.words, [](const auto& entry) { return entry.second == 0; });
  return difference;
}

}  // namespace corvid::soak
