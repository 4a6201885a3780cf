// Memory that all requests together may take.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace corvid::fleet {

// Threads   any.
class Budget {
 public:
  explicit Budget(std::size_t bytes) : _bytes(bytes) {}

  // What one holder has of the budget; given back when it goes. The budget must outlive it.
  class Charge {
   public:
    explicit Charge(Budget& budget) : _budget(&budget) {}
    ~Charge() { release(); }
    Charge(Charge&& other) noexcept
        : _budget(other._budget), _taken(std::exchange(other._taken, 0)) {}
    Charge& operator=(Charge&&) = delete;

    // Has at least so many bytes afterwards, or what it had where there is no room: then false.
    bool raiseTo(std::size_t bytes) {
      if (bytes <= _taken) return true;
      if (!_budget->take(bytes - _taken)) return false;
      _taken = bytes;
      return true;
    }
    void release() { _budget->_used -= std::exchange(_taken, 0); }
    std::size_t bytes() const { return _taken; }

   private:
    Budget* _budget;
    std::size_t _taken = 0;
  };

  std::size_t used() const { return _used; }
  std::size_t total() const { return _bytes; }
  // Whether bodies should wait outside until there is more room; what has begun has the rest.
  bool isTight() const { return _used > _bytes - _bytes / 4; }

 private:
  bool take(std::size_t bytes) {
    if (_used.fetch_add(bytes) + bytes <= _bytes) return true;
    _used -= bytes;
    return false;
  }

  const std::size_t _bytes;
  std::atomic<std::size_t> _used = 0;
};

}  // namespace corvid::fleet
