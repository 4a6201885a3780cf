// The servers at the other end of a simulated device, in its one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "platform/HTTPClient.h"

namespace corvid::simulation {

// A GET is answered before start returns, with what `fetch` gives, who lets the time pass that it
// takes: whoever waits for it finds it done. Everything else waits to be answered by number.
//
// Threads: one.
class SimulatedHTTP final : public HTTPClient {
 public:
  using Fetch = std::function<HTTPOutcome(const HTTPRequest&)>;

  explicit SimulatedHTTP(Fetch fetch) : _fetch(std::move(fetch)) {}

  void start(HTTPRequest request, HTTPCompletion completion) override {
    if (_isUnplugged) return;
    if (request.method == "GET") return completion(_fetch(request));
    ++_last;
    if (losesEvery > 0 && _last % losesEvery == 0) return;
    _underWay.emplace(_last, std::move(completion));
    _begun.emplace_back(_last, std::move(request));
  }
  std::size_t exchangesUnderWay() const override { return _underWay.size(); }
  std::map<std::string, Load> loads() const override { return {}; }

  // Those that began since the last call, with their numbers.
  std::vector<std::pair<std::uint64_t, HTTPRequest>> takeBegun() {
    return std::exchange(_begun, {});
  }
  void answer(std::uint64_t number, HTTPOutcome outcome) {
    const auto exchange = _underWay.extract(number);
    exchange.mapped()(std::move(outcome));
  }
  // The process has been killed: nothing leaves and nothing arrives any more.
  void unplug() {
    _isUnplugged = true;
    _underWay.clear();
    _begun.clear();
  }

  // A defect for tests that look for one: each so many-th post vanishes. 0: none does.
  std::uint64_t losesEvery = 0;

 private:
  const Fetch _fetch;
  std::map<std::uint64_t, HTTPCompletion> _underWay;
  std::vector<std::pair<std::uint64_t, HTTPRequest>> _begun;
  std::uint64_t _last = 0;
  bool _isUnplugged = false;
};

}  // namespace corvid::simulation
