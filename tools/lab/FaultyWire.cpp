#include "tools/lab/FaultyWire.h"

#include <fmt/format.h>

#include <utility>

#include "base/Reading.h"
#include "tools/Arguments.h"

namespace corvid::lab {

WireFaults WireFaults::from(const Dictionary& request) {
  WireFaults faults;
  const std::pair<std::string_view, double*> probabilities[] = {{"drop", &faults.drop},
                                                                {"duplicate", &faults.duplicate},
                                                                {"corrupt", &faults.corrupt},
                                                                {"reorder", &faults.reorder},
                                                                {"late", &faults.late}};
  for (const auto& [key, value] : request) {
    const auto number = asNumber(&value);
    if (key == "delay") {
      if (!number || !(*number >= 0 && *number <= 60))
        throw tools::InputError("\"delay\" takes seconds from 0 to 60");
      faults.delay = std::chrono::milliseconds(static_cast<int>(*number * 1000));
      continue;
    }
    double* probability = nullptr;
    for (const auto& [name, place] : probabilities)
      if (key == name) probability = place;
    if (probability == nullptr)
      throw tools::InputError(fmt::format("a wire has no fault \"{}\"", key));
    if (!number || !(*number >= 0 && *number <= 1))
      throw tools::InputError(fmt::format("\"{}\" takes a number from 0 to 1", key));
    *probability = *number;
  }
  return faults;
}

Dictionary WireFaults::described() const {
  Dictionary description;
  const std::pair<const char*, double> probabilities[] = {{"drop", drop},
                                                          {"duplicate", duplicate},
                                                          {"corrupt", corrupt},
                                                          {"reorder", reorder},
                                                          {"late", late}};
  for (const auto& [key, probability] : probabilities)
    if (probability > 0) description.set(key, probability);
  if (delay.count() > 0) description.set("delay", static_cast<double>(delay.count()) / 1000);
  return description;
}

bool FaultyWire::happens(double probability) {
  return std::uniform_real_distribution<>(0, 1)(_random) < probability;
}

std::vector<FaultyWire::Passage> FaultyWire::pass(std::string datagram, const sockaddr_in& peer) {
  // All are drawn, so that one fault does not change which others befall the next datagram.
  const bool isDropped = happens(_faults.drop);
  const bool isDoubled = happens(_faults.duplicate);
  const bool isDamaged = happens(_faults.corrupt);
  const bool isHeldBack = happens(_faults.reorder);
  const bool isLate = happens(_faults.late);
  const std::uint64_t where = _random();

  std::vector<Passage> out;
  if (!isDropped) {
    if (isDamaged && !datagram.empty()) datagram[where % datagram.size()] ^= 0x10;
    Passage passage{std::move(datagram), peer,
                    isLate ? _faults.delay : std::chrono::milliseconds(0)};
    if (isDoubled) out.push_back(passage);
    if (isHeldBack && !_heldBack) {
      _heldBack = std::move(passage);
      return out;
    }
    out.push_back(std::move(passage));
  }
  if (_heldBack && !out.empty()) out.push_back(*std::exchange(_heldBack, std::nullopt));
  return out;
}

}  // namespace corvid::lab
