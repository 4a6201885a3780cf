// What one client may have of a gateway that all share.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "base/KeyedHash.h"
#include "base/Mutex.h"
#include "gateway/Budget.h"
#include "gateway/Rule.h"
#include "gateway/Settings.h"

namespace corvid::fleet {

// One client's account. What is had for a second can be saved up for ten.
//
// Threads   any.
class Client {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // One more connection or request: the rule that stands against it, and then it does not count.
  std::optional<Rule> addConnection(const Settings& settings) EXCLUDES(_mutex);
  void removeConnection() EXCLUDES(_mutex);
  std::optional<Rule> beginExchange(const Settings& settings, Time now) EXCLUDES(_mutex);
  void endExchange() EXCLUDES(_mutex);
  // What a request took. More than there is left stands against the next request.
  void spend(const Settings& settings, Time now, std::size_t bytes, std::chrono::nanoseconds worked)
      EXCLUDES(_mutex);
  // What its requests have of the budget.
  Budget::Share& memory() { return _memory; }
  // Whether nothing would be lost if it were forgotten.
  bool isRested(Time now) EXCLUDES(_mutex);

 private:
  static constexpr std::chrono::seconds saved{10};
  enum Kind { requests, bytes, time, kinds };

  void pay(Kind kind, Time now, double amount, std::size_t rate) REQUIRES(_mutex);

  Budget::Share _memory;
  Mutex _mutex;
  std::size_t _connections GUARDED_BY(_mutex) = 0;
  std::size_t _exchanges GUARDED_BY(_mutex) = 0;
  // Of each kind: when all that was had will have been earned.
  std::array<Time, kinds> _earned GUARDED_BY(_mutex){};
};

// Threads   any.
class Clients {
 public:
  // By a key as clientKey() gives it. Where too many are remembered, those who come share one
  // account.
  std::shared_ptr<Client> find(const std::string& key) EXCLUDES(_mutex);
  std::size_t size() const EXCLUDES(_mutex);

 private:
  static constexpr std::size_t few = 1024;
  static constexpr std::size_t most = 100'000;
  void forgetRested() REQUIRES(_mutex);

  mutable Mutex _mutex;
  std::unordered_map<std::string, std::shared_ptr<Client>, KeyedHash, std::equal_to<>> _known
      GUARDED_BY(_mutex);
  // From which size and time on rested ones are looked for.
  std::size_t _crowded GUARDED_BY(_mutex) = few;
  Client::Time _nextLook GUARDED_BY(_mutex){};
  const std::shared_ptr<Client> _others = std::make_shared<Client>();
};

}  // namespace corvid::fleet
