// A register of Erlang's nodes, with names that stand for others.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "base/Descriptor.h"
#include "tests/support/ChildProcess.h"

namespace corvid::fleet {

// epmd on a port of this machine's loopback. A node that is told of it finds there whoever
// registered itself, and whoever was announced. Ends with the object or with the thread that made
// it. One thread.
class NodeRegister {
 public:
  // std::runtime_error where it does not come up.
  explicit NodeRegister(std::uint16_t port);

  std::uint16_t port() const { return _port; }
  // Has nodes look for `name` at `port`, while this stands. std::runtime_error where it is taken.
  void announce(const std::string& name, std::uint16_t port);

 private:
  const std::uint16_t _port;
  ChildProcess _process;
  std::map<std::string, Descriptor> _announced;  // for as long as each connection stands
};

}  // namespace corvid::fleet
