// The gateway as a whole.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Mutex.h"
#include "base/Result.h"
#include "gateway/Options.h"
#include "gateway/Shared.h"
#include "gateway/Worker.h"
#include "gateway/http/Listener.h"

namespace corvid::fleet {

// What the files that the options name say now. The failure is one line.
Result<std::shared_ptr<const InForce>> readInForce(const Options& options);

// Serves from construction on.
//
// Threads   any.
class Gateway {
 public:
  // `log` is borrowed and goes later. Throws std::runtime_error where an address or the folder of
  // uploads cannot be had.
  Gateway(const Options& options, std::shared_ptr<const InForce> inForce, LogPublisher& log);
  // At once, whatever is under way.
  ~Gateway();
  Gateway(const Gateway&) = delete;
  Gateway& operator=(const Gateway&) = delete;

  std::uint16_t port() const { return _devices->port(); }
  std::uint16_t monitorPort() const { return _monitors->port(); }
  // For requests and connections that come from now on.
  void setInForce(const std::shared_ptr<const InForce>& inForce);
  // No more connections, and no more requests than were begun.
  void stop();
  // After stop(): whether everything has ended within `timeout`.
  bool awaitEnd(std::chrono::milliseconds timeout) EXCLUDES(_mutex);
  Ledger::Balance balance() const { return _shared.ledger.balance(); }
  std::size_t memoryUsed() const { return _shared.budget.used(); }

 private:
  Shared _shared;
  Mutex _mutex;
  Condition _ended;
  std::size_t _running GUARDED_BY(_mutex) = 0;
  std::vector<std::unique_ptr<Worker>> _workers;
  std::shared_ptr<Listener> _devices;
  std::shared_ptr<Listener> _monitors;
};

}  // namespace corvid::fleet
