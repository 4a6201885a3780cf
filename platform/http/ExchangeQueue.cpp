#include "platform/http/ExchangeQueue.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/Share.h"

namespace corvid {

namespace {

// The first entry behind `last` that has a turn, else the first from the beginning.
template <class Map, class HasTurn>
typename Map::iterator nextInTurn(Map& map, const typename Map::key_type& last, HasTurn hasTurn) {
  const auto start = map.upper_bound(last);
  const auto behind = std::find_if(start, map.end(), hasTurn);
  if (behind != map.end()) return behind;
  const auto before = std::find_if(map.begin(), start, hasTurn);
  return before == start ? map.end() : before;
}

}  // namespace

bool ExchangeQueue::mayWait(const Count& own, const Count& all, const Limits& limits) {
  return leavesRoomForOthers(own.waiting, all.waiting, 1, capacityFor(limits.exchanges)) &&
         leavesRoomForOthers(own.bytes, all.bytes, 1, capacityFor(limits.bytes));
}

bool ExchangeQueue::mayBeActive(const Count& own, const Count& all, const Limits& limits) {
  return leavesRoomForOthers(own.active, all.active, 1, capacityFor(limits.active));
}

ExchangeQueue::Limits ExchangeQueue::ofAHost() const {
  return {.exchanges = _limits.exchanges / _limits.hosts,
          .bytes = _limits.bytes / _limits.hosts,
          .active = _limits.active / _limits.hosts,
          .hosts = 1};
}

ExchangeQueue::Count ExchangeQueue::countOf(User user) const {
  const auto found = _users.find(user);
  return found == _users.end() ? Count() : found->second;
}

bool ExchangeQueue::isFull(const std::string& host, User user) const {
  const Count own = countOf(user);
  if (own.waiting == 0) return false;
  if (!mayWait(own, _all, _limits)) return true;
  const auto found = _hosts.find(host);
  if (found == _hosts.end()) return false;
  const auto line = found->second.lines.find(user);
  const Count ownThere = line == found->second.lines.end() ? Count() : line->second.count;
  return !mayWait(ownThere, found->second.count, ofAHost());
}

void ExchangeQueue::add(Exchange exchange) {
  _nextDeadline = std::min(_nextDeadline, exchange.deadline);
  Host& host = _hosts[exchange.host];
  changeLine(host, host.lines.try_emplace(exchange.user).first, [&](Line& line) {
    line.bytes += exchange.size();
    line.waiting.push_back(std::move(exchange));
  });
}

std::optional<Exchange> ExchangeQueue::next() {
  if (_all.waiting == 0) return std::nullopt;
  const auto found = nextInTurn(_hosts, _servedLast, [this](Hosts::value_type& entry) {
    return lineWithTurn(entry.second) != entry.second.lines.end();
  });
  if (found == _hosts.end()) return std::nullopt;
  Host& host = found->second;
  const auto line = lineWithTurn(host);
  _servedLast = found->first;
  host.servedLast = line->first;
  std::optional<Exchange> exchange;
  changeLine(host, line, [&](Line& changed) {
    exchange = std::move(changed.waiting.front());
    changed.waiting.pop_front();
    changed.bytes -= exchange->size();
    ++changed.count.active;
  });
  if (_all.waiting == 0) _nextDeadline = Exchange::Time::max();
  return exchange;
}

ExchangeQueue::Lines::iterator ExchangeQueue::lineWithTurn(Host& host) const {
  const Limits limits = ofAHost();
  return nextInTurn(host.lines, host.servedLast, [&](const Lines::value_type& entry) {
    const auto& [user, line] = entry;
    return !line.waiting.empty() && mayBeActive(line.count, host.count, limits) &&
           mayBeActive(countOf(user), _all, _limits);
  });
}

void ExchangeQueue::finished(const std::string& host, User user) {
  Host& its = _hosts.find(host)->second;
  const auto line = its.lines.find(user);
  changeLine(its, line, [](Line& changed) { --changed.count.active; });
  if (line->second.count.isZero()) forgetEmpty();
}

std::vector<Exchange> ExchangeQueue::removeExpired(Exchange::Time now) {
  std::vector<Exchange> expired;
  if (_nextDeadline > now) return expired;
  _nextDeadline = Exchange::Time::max();
  const auto sift = [&](Line& line) {
    for (auto exchange = line.waiting.begin(); exchange != line.waiting.end();) {
      if (exchange->deadline > now) {
        _nextDeadline = std::min(_nextDeadline, exchange->deadline);
        ++exchange;
      } else {
        line.bytes -= exchange->size();
        expired.push_back(std::move(*exchange));
        exchange = line.waiting.erase(exchange);
      }
    }
  };
  for (auto& [name, host] : _hosts)
    for (auto line = host.lines.begin(); line != host.lines.end(); ++line)
      changeLine(host, line, sift);
  forgetEmpty();
  return expired;
}

std::map<std::string, HTTPClient::Load> ExchangeQueue::loads() const {
  std::map<std::string, HTTPClient::Load> loads;
  for (const auto& [name, host] : _hosts)
    loads[name] = {.underWay = host.count.active, .waiting = host.count.waiting};
  return loads;
}

template <class Change>
void ExchangeQueue::changeLine(Host& host, Lines::iterator entry, Change change) {
  auto& [user, line] = *entry;
  const Count before = line.count;
  change(line);
  line.count.waiting = line.waiting.size();
  line.count.bytes = std::min(line.bytes, ofAHost().bytes);
  // What goes down wraps around twice.
  for (Count* const sum : {&host.count, &_users[user], &_all}) {
    sum->waiting += line.count.waiting - before.waiting;
    sum->bytes += line.count.bytes - before.bytes;
    sum->active += line.count.active - before.active;
  }
}

void ExchangeQueue::forgetEmpty() {
  const auto isEmpty = [](const auto& entry) { return entry.second.count.isZero(); };
  for (auto& [name, host] : _hosts) std::erase_if(host.lines, isEmpty);
  std::erase_if(_hosts, isEmpty);
  std::erase_if(_users, [](const auto& entry) { return entry.second.isZero(); });
}

}  // namespace corvid
