// Memory that all requests together may take.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>

#include "base/Share.h"

namespace corvid::fleet {

// Threads   any.
class Budget {
 public:
  explicit Budget(std::size_t bytes) : _bytes(bytes) {}

  // What one client has of the budget: two thirds of what the others leave, at most.
  class Share {
   public:
    std::size_t used() const { return _used; }

   private:
    friend class Budget;
    std::atomic<std::size_t> _used = 0;
  };

  // What one holder has of the budget; given back when it goes. The budget must outlive it.
  class Charge {
   public:
    // Counts for the client too, where there is one.
    explicit Charge(Budget& budget, std::shared_ptr<Share> client = nullptr)
        : _budget(&budget), _client(std::move(client)) {}
    ~Charge() { release(); }
    Charge(Charge&& other) noexcept
        : _budget(other._budget),
          _client(std::move(other._client)),
          _taken(std::exchange(other._taken, 0)) {}
    Charge& operator=(Charge&&) = delete;

    // Has at least so many bytes afterwards, or what it had where there is no room: then false.
    bool raiseTo(std::size_t bytes) {
      if (bytes <= _taken) return true;
      const Taken taken = _budget->take(bytes - _taken, _client.get());
      _isBeyondShare = taken == Taken::beyondShare;
      if (taken != Taken::all) return false;
      _taken = bytes;
      return true;
    }
    // Whether what failed last did so for the client's own sake: it would have had more than its
    // share, and more than a third of everything.
    bool isBeyondShare() const { return _isBeyondShare; }
    void release() { _budget->giveBack(std::exchange(_taken, 0), _client.get()); }
    std::size_t bytes() const { return _taken; }

   private:
    Budget* _budget;
    std::shared_ptr<Share> _client;
    std::size_t _taken = 0;
    bool _isBeyondShare = false;
  };

  std::size_t used() const { return _used; }
  std::size_t total() const { return _bytes; }
  // Whether bodies should wait outside until there is more room; what has begun has the rest. Those
  // of clients who have nothing yet come in for longer: who fills the budget waits first.
  bool isTight(bool hasNothing) const { return _used > _bytes - _bytes / (hasNothing ? 16 : 4); }

 private:
  enum class Taken { all, nothing, beyondShare };

  Taken take(std::size_t bytes, Share* client) {
    const std::size_t own = client == nullptr ? 0 : client->_used.fetch_add(bytes);
    // Others may have given back between the two.
    const std::size_t all = std::max(own, _used.fetch_add(bytes));
    const bool leavesRoom = client == nullptr || leavesRoomForOthers(own, all, bytes, _bytes);
    if (all + bytes <= _bytes && leavesRoom) return Taken::all;
    giveBack(bytes, client);
    return client != nullptr && own + bytes > _bytes / 3 ? Taken::beyondShare : Taken::nothing;
  }
  void giveBack(std::size_t bytes, Share* client) {
    _used -= bytes;
    if (client != nullptr) client->_used -= bytes;
  }

  const std::size_t _bytes;
  std::atomic<std::size_t> _used = 0;
};

}  // namespace corvid::fleet
