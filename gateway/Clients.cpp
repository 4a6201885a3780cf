#include "gateway/Clients.h"

#include <algorithm>

namespace corvid::fleet {

std::optional<Rule> Client::addConnection(const Settings& settings) {
  const MutexLock lock(_mutex);
  if (_connections >= settings.clientConnections) return Rule::clientConnections;
  ++_connections;
  return std::nullopt;
}

void Client::removeConnection() {
  const MutexLock lock(_mutex);
  --_connections;
}

std::optional<Rule> Client::beginExchange(const Settings& settings, Time now) {
  constexpr std::array<Rule, kinds> rules{Rule::clientRequests, Rule::clientBytes,
                                          Rule::clientTime};
  const MutexLock lock(_mutex);
  if (_exchanges >= settings.clientExchanges) return Rule::clientExchanges;
  for (std::size_t kind = 0; kind < kinds; ++kind)
    if (_earned[kind] > now + saved) return rules[kind];
  pay(requests, now, 1, settings.clientRequests);
  ++_exchanges;
  return std::nullopt;
}

void Client::endExchange() {
  const MutexLock lock(_mutex);
  --_exchanges;
}

void Client::spend(const Settings& settings, Time now, std::size_t amount,
                   std::chrono::nanoseconds worked) {
  const MutexLock lock(_mutex);
  pay(bytes, now, static_cast<double>(amount), settings.clientBytes);
  pay(time, now, std::chrono::duration<double, std::milli>(worked).count(), settings.clientTime);
}

void Client::pay(Kind kind, Time now, double amount, std::size_t rate) {
  const std::chrono::duration<double> seconds(amount / static_cast<double>(rate));
  _earned[kind] = std::max(_earned[kind], now) +
                  std::chrono::duration_cast<std::chrono::steady_clock::duration>(seconds);
}

bool Client::isRested(Time now) {
  const MutexLock lock(_mutex);
  return _connections == 0 && _exchanges == 0 &&
         std::ranges::all_of(_earned, [now](Time earned) { return earned <= now; });
}

std::shared_ptr<Client> Clients::find(const std::string& key) {
  const MutexLock lock(_mutex);
  if (const auto known = _known.find(key); known != _known.end()) return known->second;
  if (_known.size() >= _crowded) forgetRested();
  if (_known.size() >= most) return _others;
  return _known.emplace(key, std::make_shared<Client>()).first->second;
}

std::size_t Clients::size() const {
  const MutexLock lock(_mutex);
  return _known.size();
}

void Clients::forgetRested() {
  const auto now = std::chrono::steady_clock::now();
  if (now < _nextLook) return;
  std::erase_if(_known, [&](const auto& entry) {
    return entry.second.use_count() == 1 && entry.second->isRested(now);
  });
  _nextLook = now + std::chrono::seconds(1);
  _crowded = std::clamp<std::size_t>(2 * _known.size(), few, most);
}

}  // namespace corvid::fleet
