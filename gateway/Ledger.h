// What became of every request: received = acknowledged + refused + failed + held.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "gateway/Rule.h"

namespace corvid::fleet {

// What a request is about, by its address.
enum class Route : std::uint8_t { events, realtime, uploads, logs, none };
inline constexpr std::size_t routeCount = static_cast<std::size_t>(Route::none) + 1;
inline constexpr std::array<std::string_view, routeCount> routeWords{"events", "realtime",
                                                                     "uploads", "logs", "none"};

// Each request is received once, when its head has been read or refused, and settled once.
//
// Threads   any.
class Ledger {
 public:
  void received(Route route) { ++at(_received, route); }
  // The device was told that it arrived.
  void acknowledged(Route route, std::uint64_t events) {
    ++at(_acknowledged, route);
    _events += events;
  }
  // Refused or failed.
  void settled(Rule rule) { ++_byRule[static_cast<std::size_t>(rule)]; }

  void connectionAccepted() { ++_connections; }
  void connectionClosed() { --_connections; }
  std::uint64_t openConnections() const { return _connections; }
  void connectionTurnedAway() { ++_connectionsTurnedAway; }
  void bytesRead(std::uint64_t bytes) { _bytes += bytes; }
  void publishedAgain() { ++_publishedAgain; }

  struct Balance {
    std::array<std::uint64_t, routeCount> received{};
    std::array<std::uint64_t, routeCount> acknowledged{};
    std::array<std::uint64_t, ruleCount> byRule{};
    // Received and not settled yet. Counted from the others, so that the sum holds.
    std::uint64_t held = 0;
    std::uint64_t events = 0;
    std::uint64_t bytes = 0;
    std::uint64_t connections = 0;
    std::uint64_t connectionsTurnedAway = 0;
    std::uint64_t publishedAgain = 0;
  };
  Balance balance() const;

 private:
  using Count = std::atomic<std::uint64_t>;
  static Count& at(std::array<Count, routeCount>& counts, Route route) {
    return counts[static_cast<std::size_t>(route)];
  }

  std::array<Count, routeCount> _received{};
  std::array<Count, routeCount> _acknowledged{};
  std::array<Count, ruleCount> _byRule{};
  Count _events = 0;
  Count _bytes = 0;
  Count _connections = 0;
  Count _connectionsTurnedAway = 0;
  Count _publishedAgain = 0;
};

}  // namespace corvid::fleet
