// Datagrams on a wire that loses, doubles, damages, delays and reorders them.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "base/Value.h"

namespace corvid::lab {

// How often, from 0 (never) to 1 (always), something befalls a datagram.
struct WireFaults {
  double drop = 0;
  double duplicate = 0;
  double corrupt = 0;  // one byte of it is changed
  double reorder = 0;  // held back until the next one has passed
  double late = 0;     // by `delay`
  std::chrono::milliseconds delay{0};

  // From {"drop":P,"duplicate":P,"corrupt":P,"reorder":P,"late":P,"delay":SECONDS}, each of which
  // may be left out. What cannot be meant is a tools::InputError.
  static WireFaults from(const Dictionary& request);
  // The same object, without what never happens.
  Dictionary described() const;
};

// The same seed and the same datagrams give the same faults.
//
// Threads: one at a time.
class FaultyWire {
 public:
  struct Passage {
    std::string datagram;
    sockaddr_in peer;  // whoever's it is
    std::chrono::milliseconds delay{0};
  };

  explicit FaultyWire(WireFaults faults = {}, std::uint64_t seed = 1)
      : _faults(faults), _random(seed) {}

  const WireFaults& faults() const { return _faults; }

  // What comes out when this goes in: none, one or more, in this order.
  std::vector<Passage> pass(std::string datagram, const sockaddr_in& peer);

 private:
  bool happens(double probability);

  WireFaults _faults;
  std::mt19937_64 _random;
  std::optional<Passage> _heldBack;
};

}  // namespace corvid::lab
