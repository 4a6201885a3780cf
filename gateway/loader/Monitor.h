// Answers whoever watches a program.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "base/Descriptor.h"
#include "base/Wakeup.h"

namespace corvid::fleet {

// HTTP/1.1 on an address of its own, one request after the other: GET /metrics and GET /healthz.
// Any thread.
class Monitor {
 public:
  struct Answers {
    std::function<std::string()> metrics;  // OpenMetrics; both are called on the monitor's thread
    std::function<bool()> isReady;
  };
  // `address`: "ADDRESS:PORT", an IPv6 address in brackets, where port 0 is any.
  // std::runtime_error where it cannot be had.
  Monitor(const std::string& address, Answers answers);
  ~Monitor();

  std::uint16_t port() const;

 private:
  void run(const std::stop_token& stop) const;
  void answer(int client) const;

  const Answers _answers;
  const Wakeup _wakeup;
  Descriptor _socket;
  std::jthread _thread;
};

}  // namespace corvid::fleet
