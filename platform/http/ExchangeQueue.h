// Exchanges that wait for a connection.
#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/http/Exchange.h"

namespace corvid {

// First come, first served for each host; the hosts take turns, so that one which does not answer
// holds up nobody else. A value class without a clock or a lock of its own.
class ExchangeQueue {
 public:
  struct Limits {
    std::size_t exchanges;
    std::size_t bytes;  // an exchange that finds less waiting is let in whatever its size
    std::size_t hosts;  // so many hosts fill the queue, each with its share
    std::size_t activePerHost;
  };

  explicit ExchangeQueue(Limits limits) : _limits(limits) {}

  // Whether there is no room for one more exchange with this host.
  bool isFull(const std::string& host) const;
  // Only when not full.
  void add(Exchange exchange);

  // The next one whose host has room; it counts as active until finished(host).
  std::optional<Exchange> next();
  void finished(const std::string& host);

  // Takes those out whose deadline is not after `now`.
  std::vector<Exchange> removeExpired(Exchange::Time now);
  std::vector<Exchange> removeAll() { return removeExpired(Exchange::Time::max()); }
  // No deadline of a waiting exchange is before it; the end of time when none waits.
  Exchange::Time nextDeadline() const { return _nextDeadline; }

  std::size_t waiting() const { return _waiting; }

 private:
  struct Host {
    std::size_t active = 0;
    std::list<Exchange> waiting;
    std::size_t bytes = 0;  // of those that wait
  };
  using Hosts = std::map<std::string, Host>;

  void setBytes(Host& host, std::size_t bytes);

  const Limits _limits;
  Hosts _hosts;  // those with something active or waiting
  std::string _servedLast;
  std::size_t _waiting = 0;
  // Each host counts with its share at most: a large body takes no room from other hosts.
  std::size_t _bytes = 0;
  Exchange::Time _nextDeadline = Exchange::Time::max();
};

}  // namespace corvid
