// A client of a chain that does at random what clients do.
#pragma once

#include <array>
#include <atomic>
#include <corvid/corvid.hpp>
#include <cstddef>
#include <functional>
#include <optional>
#include <random>
#include <string>

namespace corvid {

// Threads   act on one thread at a time, which waits for the daemon; the rest between two acts.
class StressClient {
 public:
  static constexpr int levels = 4;
  // Each level has a client type, and so a storebag, of its own.
  static constexpr std::array<int, levels> clientTypes{8, 9, 10, 12};

  // `number` tells clients apart in the daemon; `takeGone` says, once, that the daemon has let the
  // session of that number go. A client that may aggregate does so at times.
  StressClient(std::string root, int number, int chain, int level, unsigned seed,
               std::function<bool(int number)> takeGone);

  // Does so many things, then waits until the daemon has done all of them.
  void act(int things);
  // Ends once the daemon has noticed: it would else meet itself in its chain.
  void vanish();

  bool isConnected() const { return _session.has_value(); }
  // Whether the daemon counts it to a chain; under which name.
  bool belongs() const { return _isStarted; }
  const std::string& chainName() const { return _name; }
  int number() const { return _number; }
  int level() const { return _level; }
  bool mayAggregate() const { return _mayAggregate; }
  std::size_t deliveries() const { return _deliveries; }
  // Calls that the daemon answered otherwise than it should.
  std::size_t surprises() const { return _surprises; }

 private:
  using Session = client::Session;

  int below(int limit) { return static_cast<int>(_random() % static_cast<unsigned>(limit)); }
  void connect();
  void describe();
  void send();
  void changeName();
  void chooseName();
  client::Dictionary userInfo() const;
  // Makes the call until it is accepted and waits until it has ended.
  void await(const std::function<client::Status(Session::Finished)>& call);

  const std::string _root;
  const int _number;
  const int _chain;
  const int _level;
  const bool _mayAggregate;
  const std::function<bool(int number)> _takeGone;
  std::mt19937 _random;
  std::string _name;
  bool _isStarted = false;
  std::atomic<std::size_t> _deliveries{0};
  std::atomic<std::size_t> _surprises{0};
  std::optional<Session> _session;  // last: its callbacks use the others
};

}  // namespace corvid
