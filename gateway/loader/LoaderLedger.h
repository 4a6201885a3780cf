// What became of the messages that a loader has read.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "gateway/loader/Store.h"

namespace corvid::fleet {

// received = stored + repeated + rejected + held, whenever the loader rests. Threads: any.
class LoaderLedger {
 public:
  void received(std::size_t messages) {
    _received += messages;
    _held += messages;
  }
  void decided(const StoredCounts& counts);
  void failed() { ++_failures; }
  void setReading(bool isReading) { _isReading = isReading; }

  std::uint64_t received() const { return _received; }
  std::uint64_t stored() const { return _stored; }
  std::uint64_t repeated() const { return _repeated; }
  std::uint64_t rejected() const { return _rejected; }
  std::uint64_t held() const { return _held; }
  // Whether the log is read and the database took the last messages.
  bool isReading() const { return _isReading; }

  // In the OpenMetrics text format, version 1.0.0.
  std::string metrics() const;

 private:
  std::atomic<std::uint64_t> _received{0};
  std::atomic<std::uint64_t> _stored{0};
  std::atomic<std::uint64_t> _repeated{0};
  std::atomic<std::uint64_t> _rejected{0};
  std::atomic<std::uint64_t> _held{0};
  std::atomic<std::uint64_t> _rows{0};
  std::atomic<std::uint64_t> _failures{0};
  std::atomic<bool> _isReading{false};
};

}  // namespace corvid::fleet
