// A device with the daemon's core in it: agent, sessions, backends, fetch and cache are the
// product's; clock, network, servers, files, preferences and clients are simulated.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "daemon/CorviddAgent.h"
#include "tests/fakes/FakeConnection.h"
#include "tests/fakes/RecordedReply.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/simulation/Facts.h"
#include "tests/simulation/ModelBooks.h"
#include "tests/simulation/SimulatedHTTP.h"
#include "tests/simulation/Step.h"
#include "tests/simulation/StorebagServer.h"

namespace corvid::simulation {

// Several may live at once in one thread. Each call makes the device's own Platform the process's
// for as long as it is looked after next: begin is called first in each step.
//
// Clients are numbered by whoever runs it, as with the Model, whose calls these are.
class SimulatedDevice {
 public:
  // `server` is borrowed.
  SimulatedDevice(Device device, const StorebagServer& server);
  ~SimulatedDevice();
  SimulatedDevice(const SimulatedDevice&) = delete;
  SimulatedDevice& operator=(const SimulatedDevice&) = delete;

  // The device's steady time, since the simulation's beginning; never goes back.
  std::chrono::microseconds time() const;
  double timeOfDay() const { return _fakes.clock->now().asDouble(); }
  // A step begins at that time, or as soon as the device has time for it.
  void begin(std::chrono::microseconds at, const Facts& facts);
  // The time of day is that far from the truth.
  void lie(std::chrono::microseconds by) { _fakes.clock->setWallAhead(by); }
  // The process is killed, and another one begins.
  void restart();

  // The session's own ID string, which is random.
  std::string connect(int client, std::uint32_t user, bool meetsOthers);
  void setSessionInfo(int client, const Dictionary& info, const std::optional<Dictionary>& userInfo,
                      bool aggregates);
  void startConfig(int client);
  void fetchStates(int client, const std::optional<Dictionary>& userInfo);
  void fetchDisplayURL(int client);
  void send(int client, const Dictionary& message);
  void sendSingle(int client, const Dictionary& info, const std::optional<Dictionary>& userInfo,
                  std::uint16_t category, std::uint16_t type,
                  const std::optional<Dictionary>& payload);
  void finish(int client);
  void flush(int client);
  void leave(int client);
  void answer(std::uint64_t post, const Ending& ending);

  // What has happened since the last call; and the numbers of the posts, in their order.
  Step takeStep(std::vector<std::uint64_t>& numbers);
  SimulatedHTTP& http() { return *_http; }
  // What stands under that key of the daemon's preferences, if anything does.
  std::optional<std::string> preference(const std::string& key);

 private:
  struct Client {
    std::shared_ptr<FakeConnection> connection{};
    std::vector<RecordedReply<std::optional<std::string>, std::optional<CorvidError>>> flushes{};
    std::size_t deliveries = 0;  // that have been looked at
    bool hasDeliveries = false;
  };

  void startProcess();
  void endProcess();
  CorviddSession& sessionOf(int client);
  void say(int client, const std::string& call, std::string answer) {
    _step.answers.push_back({client, call, {std::move(answer)}});
  }
  void takeFlushes(int client, Client& its);
  void takeDeliveries(int client, Client& its);

  const Device _device;
  const StorebagServer& _server;
  TestPlatform _fakes;
  const Paths _paths{"/device"};
  std::shared_ptr<SimulatedHTTP> _http;
  std::unique_ptr<Platform> _platform;
  std::shared_ptr<CorviddAgent> _agent;
  std::map<int, Client> _clients;
  Step _step;
};

}  // namespace corvid::simulation
