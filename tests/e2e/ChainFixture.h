// Clients of a chain, each a process of its own, beside the real daemon and its servers.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "tests/e2e/ClientProcess.h"
#include "tests/e2e/LabFixture.h"

namespace corvid {

// A client that has described and started its session. Its events carry their text under "mark".
class ChainMember {
 public:
  struct Description {
    int level = 0;
    std::string clientName = "Player";
    std::string serviceName = "Film";
    bool aggregates = false;
    bool requiresUserInfo = true;
  };

  // The client type of each level, whose storebag says which level it is.
  static int clientType(int level) { return 8 + level; }
  static Dictionary userInfo(const std::string& clientName,
                             const std::string& serviceName = "Film");

  ChainMember(const std::string& root, int sessionID) : _process(root), _sessionID(sessionID) {}

  void start(const Description& description);
  // Backend names joined by ","; "null" where there are none.
  std::string states() const { return _states; }
  std::string fetchStates(const std::optional<Dictionary>& userInfo);
  void send(const std::string& mark, int flag = 0);
  // "flushed", or the daemon's description of the error.
  std::string flush();
  void sendAndFlush(const std::string& mark);

  Dictionary sessionInfo() const;
  ClientProcess& process() { return _process; }
  // The session's own ID, as the daemon has logged it.
  std::string identifier;

 private:
  static std::string joined(const Dictionary& outcome);

  ClientProcess _process;
  const int _sessionID;
  Description _description;
  std::string _states;
};

class ChainFixture : public LabFixture {
 protected:
  // Publishes a storebag for each level, and starts the daemon.
  void SetUp() override;
  // The entry that decides about the clients of a level, with further entries or others.
  void publishLevel(int level, const Dictionary& more = {});
  static Dictionary entryOf(int level, const Dictionary& more = {});

  ChainMember join(const ChainMember::Description& description);
  ChainMember join(int level) { return join({.level = level}); }

  // Waits for the record with that mark and gives one of its texts; "" where it lacks it.
  std::string textOf(std::string_view mark, std::string_view key = "_sessionID");
  // Of all records that clients of this level have sent so far, start and end messages too.
  std::vector<Dictionary> recordsOfLevel(int level);
  // Waits for the end message of a client of the level and gives it.
  std::optional<Dictionary> endMessageOfLevel(int level);

 private:
  std::size_t _joined = 0;
};

}  // namespace corvid
