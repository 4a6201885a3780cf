// Follows what becomes of events as it is decided.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "base/Mutex.h"
#include "base/Value.h"
#include "status/Decision.h"

namespace corvid {

// Keeps what it heard until it is taken, within bounds; what does not fit is lost and counted, so
// that nobody ever waits for it.
//
// Threads: any.
class DecisionWatcher {
 public:
  static constexpr std::size_t mostWaiting = 2048;
  static constexpr std::size_t mostRecordBytes = std::size_t{4} << 20;

  struct Wishes {
    std::optional<std::uint64_t> session{};  // only what is of this one
    bool records = false;
  };

  // `wake` is called when something waits after nothing did, by whoever decided it; it may neither
  // block nor take a lock that a backend could hold.
  DecisionWatcher(Wishes wishes, std::function<void()> wake)
      : _wishes(wishes), _wake(std::move(wake)) {}

  bool wantsRecords() const { return _wishes.records; }

  // False where it is lost.
  bool hear(const Decision& decision) EXCLUDES(_mutex);
  // What waits, oldest first, as `explain` shows it; behind it {"lost": how many} where some are.
  std::vector<Dictionary> take() EXCLUDES(_mutex);

 private:
  std::size_t recordBytesOf(const Decision& decision) const;

  const Wishes _wishes;
  const std::function<void()> _wake;
  Mutex _mutex;
  std::vector<Decision> _waiting GUARDED_BY(_mutex);
  std::size_t _recordBytes GUARDED_BY(_mutex) = 0;
  std::size_t _lost GUARDED_BY(_mutex) = 0;  // since what waits came
};

}  // namespace corvid
