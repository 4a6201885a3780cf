#include "platform/RecentKeys.h"

#include <algorithm>
#include <iterator>

namespace corvid {

void RecentKeys::use(User user, const std::string& key) {
  const auto [place, isNew] = _places.try_emplace({user, key}, _uses.end());
  if (!isNew) return _uses.splice(_uses.end(), _uses, place->second);
  place->second = _uses.insert(_uses.end(), {user, key});
  _costs[user] += costOf(key);
  _cost += costOf(key);
}

std::vector<std::string> RecentKeys::shrinkTo(std::size_t cost) {
  std::vector<std::string> left;
  while (_cost > cost) {
    const User user =
        std::ranges::max_element(_costs, {}, [](const auto& of) { return of.second; })->first;
    const auto oldest = std::ranges::find(_uses, user, &Use::user);
    std::string key = oldest->key;
    drop(oldest);
    if (!belongsToSomebody(key)) left.push_back(std::move(key));
  }
  return left;
}

void RecentKeys::forget(const std::string& key) {
  for (auto use = _uses.begin(); use != _uses.end();) {
    const auto next = std::next(use);
    if (use->key == key) drop(use);
    use = next;
  }
}

void RecentKeys::drop(Uses::iterator use) {
  const std::size_t cost = costOf(use->key);
  _cost -= cost;
  const auto ofUser = _costs.find(use->user);
  if ((ofUser->second -= cost) == 0) _costs.erase(ofUser);
  _places.erase({use->user, use->key});
  _uses.erase(use);
}

bool RecentKeys::belongsToSomebody(const std::string& key) const {
  return std::ranges::any_of(_costs, [&](const auto& of) { return has(of.first, key); });
}

}  // namespace corvid
