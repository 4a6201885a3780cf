#include "gateway/Ledger.h"

namespace corvid::fleet {

Ledger::Balance Ledger::balance() const {
  Balance balance;
  // What is settled first, so that whatever is settled has been received as well.
  std::uint64_t settled = 0;
  for (std::size_t i = 0; i < ruleCount; ++i) settled += balance.byRule[i] = _byRule[i];
  for (std::size_t i = 0; i < routeCount; ++i)
    settled += balance.acknowledged[i] = _acknowledged[i];
  std::uint64_t received = 0;
  for (std::size_t i = 0; i < routeCount; ++i) received += balance.received[i] = _received[i];
  balance.held = received - settled;
  balance.events = _events;
  balance.bytes = _bytes;
  balance.connections = _connections;
  balance.connectionsTurnedAway = _connectionsTurnedAway;
  balance.publishedAgain = _publishedAgain;
  return balance;
}

}  // namespace corvid::fleet
