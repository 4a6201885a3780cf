// What happens to one device, drawn from a seed, and done to it and to the model alike.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/daemon/RandomInputs.h"
#include "tests/simulation/Facts.h"
#include "tests/simulation/Model.h"
#include "tests/simulation/SimulatedDevice.h"
#include "tests/simulation/StorebagServer.h"
#include "tests/simulation/TraceHash.h"

namespace corvid::simulation {

// The daemon did something else than the model says.
class Difference : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Defects to plant, for tests that look whether they are found.
struct Defects {
  std::uint64_t losesPost = 0;  // each so many-th
  bool forgetsRefusal = false;  // of consent
};

// The same life for the same seed and number.
//
// Threads: one.
class Life {
 public:
  Life(unsigned seed, unsigned number, const Defects& defects = {});

  // When the next step is due.
  std::chrono::microseconds due() const;
  // Makes it. Throws a Difference with the step, its time and the last steps.
  void step();

  std::uint64_t steps() const { return _steps; }
  std::uint64_t hash() const { return _hash.value(); }
  // Words of what has been met: acts, outcomes, reasons.
  const std::map<std::string, std::uint64_t>& met() const { return _met; }

 private:
  using Time = std::chrono::microseconds;
  struct UnderWay {
    std::uint64_t number = 0;
    ExpectedPost post{};
  };

  static Device anyDevice(RandomInputs& dice);
  void act();
  void actOfClient(int client);
  void answer();
  void connect();
  void describe(int client);
  void start(int client);
  void rename(int client);
  void send(int client);
  void sendSingle(int client);
  void leave(int client);
  void changeSurroundings();
  void restart();

  Dictionary sessionInfo();
  std::optional<Dictionary> userInfo();
  std::optional<Dictionary> payload();
  // Before each call of device and model.
  void begin(std::string what);
  void fetchesMayCome() { _server.becomeAnyhow(); }
  void compare();
  void schedule(std::uint64_t number, ExpectedPost post);
  void resolveIdentifier(Dictionary& body);
  Time anyPause();
  std::string report(const std::string& difference) const;

  const unsigned _seed;
  const unsigned _number;
  const Defects _defects;
  RandomInputs _dice;
  StorebagServer _server{_dice};
  Facts _facts;
  SimulatedDevice _device;
  std::unique_ptr<Model> _model;

  Time _nextAct{0};
  Time _due{0};  // of the step that is being made
  std::multimap<Time, UnderWay> _underWay;
  std::vector<int> _clients;
  int _lastClient = 0;
  std::set<std::string> _sessionIDs;
  std::map<std::string, std::string> _identifiers;  // custom ones, by name
  std::uint64_t _steps = 0;
  std::deque<std::string> _latest;  // steps, as a report tells them
  TraceHash _hash;
  std::map<std::string, std::uint64_t> _met;
};

}  // namespace corvid::simulation
