// Exchanges that wait for a connection.
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "base/ActingUser.h"
#include "platform/http/Exchange.h"

namespace corvid {

// First come, first served for each user and host; the hosts take turns, so that one which does not
// answer holds up nobody else, and so do the users of a host. Of what waits and of the connections
// a user gets, of a host's as of all, what leaves room for other users (base/Share.h). A value
// class without a clock or a lock of its own.
class ExchangeQueue {
 public:
  // What one user alone may have of all hosts together, and of one host the `hosts`th part of it.
  struct Limits {
    std::size_t exchanges;  // that wait
    std::size_t bytes;      // of those; one that finds less waiting is let in whatever its size
    std::size_t active;
    std::size_t hosts;
  };

  explicit ExchangeQueue(Limits limits) : _limits(limits) {}

  // Whether there is no room for one more exchange of this user with this host. There is for a user
  // who has none waiting.
  bool isFull(const std::string& host, User user) const;
  // Only when not full.
  void add(Exchange exchange);

  // The next one that there is a connection for; it counts as active until finished.
  std::optional<Exchange> next();
  void finished(const std::string& host, User user);

  // Takes those out whose deadline is not after `now`.
  std::vector<Exchange> removeExpired(Exchange::Time now);
  std::vector<Exchange> removeAll() { return removeExpired(Exchange::Time::max()); }
  // No deadline of a waiting exchange is before it; the end of time when none waits.
  Exchange::Time nextDeadline() const { return _nextDeadline; }

  std::size_t waiting() const { return _all.waiting; }
  std::map<std::string, HTTPClient::Load> loads() const;

 private:
  struct Count {
    bool isZero() const { return waiting == 0 && active == 0; }

    std::size_t waiting = 0;
    std::size_t bytes = 0;  // of those that wait
    std::size_t active = 0;
  };
  // Of one user at one host. What it counts for bytes is no more than the user's share there: a
  // large body takes no room from others.
  struct Line {
    Count count;
    std::list<Exchange> waiting;
    std::size_t bytes = 0;
  };
  using Lines = std::map<User, Line>;
  struct Host {
    Count count;
    Lines lines;  // those with something active or waiting
    User servedLast;
  };
  using Hosts = std::map<std::string, Host>;

  // Whether the user may have one more waiting, or active, of what is counted for `own` and `all`.
  static bool mayWait(const Count& own, const Count& all, const Limits& limits);
  static bool mayBeActive(const Count& own, const Count& all, const Limits& limits);
  Limits ofAHost() const;
  Count countOf(User user) const;
  // The line whose turn it is at a host; none where all wait for connections.
  Lines::iterator lineWithTurn(Host& host) const;

  // Applies `change` to a line and counts it anew, in all that it counts in.
  template <class Change>
  void changeLine(Host& host, Lines::iterator line, Change change);
  void forgetEmpty();

  const Limits _limits;
  Hosts _hosts;  // those with something active or waiting
  std::map<User, Count> _users;
  Count _all;
  std::string _servedLast;
  Exchange::Time _nextDeadline = Exchange::Time::max();
};

}  // namespace corvid
