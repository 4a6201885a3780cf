#include "platform/SharedBudget.h"

#include "base/Share.h"

namespace corvid {

bool SharedBudget::Share::grow(std::size_t more) {
  if (!_budget || !_budget->grow(_user, more)) return false;
  _amount += more;
  return true;
}

void SharedBudget::Share::shrink(std::size_t amount) {
  if (amount >= _amount) return;
  _budget->giveBack(_user, _amount - amount);
  _amount = amount;
}

std::optional<SharedBudget::Share> SharedBudget::take(std::uint32_t user, std::size_t amount) {
  if (!grow(user, amount)) return std::nullopt;
  return Share(shared_from_this(), user, amount);
}

std::optional<SharedBudget::Share> SharedBudget::take(std::uint32_t user, std::size_t amount,
                                                      Clock& clock, Clock::TimePoint deadline) {
  {
    MutexLock lock(_mutex);
    if (!clock.waitUntil(_freed, _mutex, deadline,
                         [&]() NO_THREAD_SAFETY_ANALYSIS { return fits(user, amount); }))
      return std::nullopt;
    add(user, amount);
  }
  return Share(shared_from_this(), user, amount);
}

std::size_t SharedBudget::held() const {
  const MutexLock lock(_mutex);
  return _held;
}

bool SharedBudget::fits(std::uint32_t user, std::size_t amount) const {
  if (amount == 0) return true;
  const auto found = _users.find(user);
  if (found == _users.end()) return amount <= _capacity - _held;
  return leavesRoomForOthers(found->second, _held, amount, _capacity);
}

void SharedBudget::add(std::uint32_t user, std::size_t amount) {
  if (amount == 0) return;
  _held += amount;
  _users[user] += amount;
}

bool SharedBudget::grow(std::uint32_t user, std::size_t amount) {
  const MutexLock lock(_mutex);
  if (!fits(user, amount)) return false;
  add(user, amount);
  return true;
}

void SharedBudget::giveBack(std::uint32_t user, std::size_t amount) {
  {
    const MutexLock lock(_mutex);
    _held -= amount;
    const auto found = _users.find(user);
    if ((found->second -= amount) == 0) _users.erase(found);
  }
  // All: what fits of those that wait need not be the first.
  _freed.notify_all();
}

}  // namespace corvid
