// A bounded amount of something that the daemon's users share, such as bytes of memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "base/Mutex.h"
#include "platform/Clock.h"

namespace corvid {

// Bounds what is held in all, and by each user to its share of that (base/Share.h). Who holds
// nothing may have anything that is free, however large.
//
// Threads: any.
class SharedBudget : public std::enable_shared_from_this<SharedBudget> {
 public:
  // What is held, until the object goes or is released. One thread at a time.
  class Share {
   public:
    Share() = default;
    Share(Share&& other) noexcept
        : _budget(std::move(other._budget)),
          _user(other._user),
          _amount(std::exchange(other._amount, 0)) {}
    Share& operator=(Share&& other) noexcept {
      std::swap(_budget, other._budget);
      std::swap(_user, other._user);
      std::swap(_amount, other._amount);
      return *this;
    }
    ~Share() { shrink(0); }

    std::size_t amount() const { return _amount; }
    // False, changing nothing, where so much more does not fit.
    bool grow(std::size_t more);
    void shrink(std::size_t amount);

   private:
    friend class SharedBudget;
    Share(std::shared_ptr<SharedBudget> budget, std::uint32_t user, std::size_t amount)
        : _budget(std::move(budget)), _user(user), _amount(amount) {}

    std::shared_ptr<SharedBudget> _budget;
    std::uint32_t _user = 0;
    std::size_t _amount = 0;
  };

  explicit SharedBudget(std::size_t capacity) : _capacity(capacity) {}

  // Nothing where it does not fit now.
  std::optional<Share> take(std::uint32_t user, std::size_t amount) EXCLUDES(_mutex);
  // Waits until it fits, at most until `deadline`.
  std::optional<Share> take(std::uint32_t user, std::size_t amount, Clock& clock,
                            Clock::TimePoint deadline) EXCLUDES(_mutex);
  // A share of nothing, to grow.
  Share none(std::uint32_t user) { return {shared_from_this(), user, 0}; }

  std::size_t held() const EXCLUDES(_mutex);

 private:
  bool fits(std::uint32_t user, std::size_t amount) const REQUIRES(_mutex);
  void add(std::uint32_t user, std::size_t amount) REQUIRES(_mutex);
  bool grow(std::uint32_t user, std::size_t amount) EXCLUDES(_mutex);
  void giveBack(std::uint32_t user, std::size_t amount) EXCLUDES(_mutex);

  const std::size_t _capacity;
  mutable Mutex _mutex;
  Condition _freed;
  std::size_t _held GUARDED_BY(_mutex) = 0;
  std::map<std::uint32_t, std::size_t> _users GUARDED_BY(_mutex);  // who hold something
};

// What all clients together may make the process hold, by what it is held for. Nobody who waits for
// one of them holds anything of it, and whoever holds of a later one waits for no earlier one, so
// that some of what is held always goes.
struct Budgets {
  static constexpr std::size_t mebibyte = std::size_t{1} << 20;

  // Messages on their way in and what they are decoded into. Waited for before memory is taken.
  std::shared_ptr<SharedBudget> incoming = std::make_shared<SharedBudget>(96 * mebibyte);
  // Messages to servers, while they are written and until they were posted. Waited for.
  std::shared_ptr<SharedBudget> outgoing = std::make_shared<SharedBudget>(144 * mebibyte);
  // Answers that clients have not taken. What does not fit is left out.
  std::shared_ptr<SharedBudget> answers = std::make_shared<SharedBudget>(36 * mebibyte);
  // Events that wait for a flush, deliveries that wait for a client, and what sessions keep of
  // their clients. What does not fit makes room as if its own limit were met.
  std::shared_ptr<SharedBudget> kept = std::make_shared<SharedBudget>(48 * mebibyte);
  // Open files that clients passed.
  std::shared_ptr<SharedBudget> files = std::make_shared<SharedBudget>(192);
};

}  // namespace corvid
