#include "platform/http/ExchangeQueue.h"

#include <algorithm>
#include <iterator>

namespace corvid {

bool ExchangeQueue::isFull(const std::string& host) const {
  if (_waiting >= _limits.exchanges || _bytes >= _limits.bytes) return true;
  const auto found = _hosts.find(host);
  return found != _hosts.end() &&
         (found->second.waiting.size() >= _limits.exchanges / _limits.hosts ||
          found->second.bytes >= _limits.bytes / _limits.hosts);
}

void ExchangeQueue::add(Exchange exchange) {
  _nextDeadline = std::min(_nextDeadline, exchange.deadline);
  ++_waiting;
  Host& host = _hosts[exchange.host];
  setBytes(host, host.bytes + exchange.size());
  host.waiting.push_back(std::move(exchange));
}

std::optional<Exchange> ExchangeQueue::next() {
  if (_waiting == 0) return std::nullopt;
  const auto hasTurn = [this](const Hosts::value_type& entry) {
    return !entry.second.waiting.empty() && entry.second.active < _limits.activePerHost;
  };
  const auto start = _hosts.upper_bound(_servedLast);
  auto found = std::find_if(start, _hosts.end(), hasTurn);
  if (found == _hosts.end()) {
    found = std::find_if(_hosts.begin(), start, hasTurn);
    if (found == start) return std::nullopt;
  }
  auto& [name, host] = *found;
  _servedLast = name;
  ++host.active;
  Exchange exchange = std::move(host.waiting.front());
  host.waiting.pop_front();
  setBytes(host, host.bytes - exchange.size());
  if (--_waiting == 0) _nextDeadline = Exchange::Time::max();
  return exchange;
}

void ExchangeQueue::finished(const std::string& host) {
  const auto found = _hosts.find(host);
  if (--found->second.active == 0 && found->second.waiting.empty()) _hosts.erase(found);
}

std::vector<Exchange> ExchangeQueue::removeExpired(Exchange::Time now) {
  std::vector<Exchange> expired;
  if (_nextDeadline > now) return expired;
  _nextDeadline = Exchange::Time::max();
  for (auto entry = _hosts.begin(); entry != _hosts.end();) {
    auto& waiting = entry->second.waiting;
    for (auto exchange = waiting.begin(); exchange != waiting.end();) {
      if (exchange->deadline > now) {
        _nextDeadline = std::min(_nextDeadline, exchange->deadline);
        ++exchange;
      } else {
        --_waiting;
        setBytes(entry->second, entry->second.bytes - exchange->size());
        expired.push_back(std::move(*exchange));
        exchange = waiting.erase(exchange);
      }
    }
    const bool isDone = waiting.empty() && entry->second.active == 0;
    entry = isDone ? _hosts.erase(entry) : std::next(entry);
  }
  return expired;
}

void ExchangeQueue::setBytes(Host& host, std::size_t bytes) {
  const std::size_t share = _limits.bytes / _limits.hosts;
  _bytes -= std::min(host.bytes, share);
  host.bytes = bytes;
  _bytes += std::min(host.bytes, share);
}

}  // namespace corvid
