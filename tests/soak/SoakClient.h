// A place for one client session after another, which does at random what clients do.
#pragma once

#include <corvid/corvid.hpp>
#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "tests/soak/ClientJournal.h"
#include "tests/soak/Kinds.h"

namespace corvid::soak {

// Threads: one.
class SoakClient {
 public:
  // `name` tells it apart from all others of the round.
  SoakClient(std::string root, std::string name, std::shared_ptr<const ClientJournal> journal,
             unsigned seed);

  // Does one thing: comes, describes itself, sends, flushes, asks, goes, or breaks the protocol.
  void act();
  // Its session ends, and what it has asked is waited for, at most for the library's deadline.
  void leave();

 private:
  using Session = client::Session;

  unsigned below(unsigned limit) { return static_cast<unsigned>(_random() % limit); }
  void come();
  void send();
  void flush();
  void ask();
  // Writes nonsense to the daemon on a connection of its own, and goes.
  void misbehave();
  client::Dictionary sessionInfo() const;
  client::Dictionary userInfo() const;

  const std::string _root;
  const std::string _name;
  const std::shared_ptr<const ClientJournal> _journal;
  std::mt19937 _random;
  const Kind* _kind = nullptr;
  int _sessions = 0;
  int _events = 0;
  std::size_t _flushes = 0;
  std::string _sessionName;
  std::optional<Session> _session;
};

}  // namespace corvid::soak
