// The daemon of one device as its documents describe it: what clients, servers and people do is
// told to it, and it says what must come of that. Written from the documents alone, plainly and
// without regard to cost; it shares with the daemon no more than values, digests and names.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tests/simulation/Facts.h"
#include "tests/simulation/ModelBackend.h"
#include "tests/simulation/ModelBooks.h"
#include "tests/simulation/ModelStorebags.h"
#include "tests/simulation/Step.h"

namespace corvid::simulation {

// One process. Clients are numbered by whoever runs it.
//
// Threads: one.
class Model {
 public:
  // `server` is borrowed.
  explicit Model(const StorebagServer& server) : _storebags(server) {}

  // Begins a step: what is called until takeStep happens in it.
  void begin(const Facts& facts);

  void connect(int client, const std::string& sessionIDString, std::uint32_t user,
               bool meetsOthers);
  void setSessionInfo(int client, const Dictionary& info, const std::optional<Dictionary>& userInfo,
                      bool aggregates);
  void startConfig(int client);
  void fetchStates(int client, const std::optional<Dictionary>& userInfo);
  void fetchDisplayURL(int client);
  void send(int client, const Dictionary& message);
  void sendSingle(int client, const Dictionary& info, const std::optional<Dictionary>& userInfo,
                  const Message& message);
  void finish(int client);
  void flush(int client);
  void leave(int client);
  // An exchange that began with a post of an earlier step.
  void answer(const ExpectedPost& post, const Ending& ending);

  // What the step must have led to, and its posts with what their answers will change.
  Step takeStep(std::vector<ExpectedPost>& posts);

 private:
  using Backends = std::map<std::string, std::shared_ptr<ModelBackend>>;
  struct Session {
    int client = 0;
    std::string idString{};
    std::uint32_t user = 0;
    bool meetsOthers = false;
    std::uint32_t sessionID = 0;
    std::optional<Dictionary> info{};
    std::optional<Dictionary> userInfo{};
    bool aggregates = false;
    std::string version{};  // of the storebag
    bool hasVersion = false;
    std::optional<Backends> backends{};
    std::string silence = "noSessionInfo";
  };
  using Group = std::vector<Session*>;

  Session& sessionOf(int client) { return *_sessions.at(client); }
  void say(int client, const std::string& call, std::string answer) {
    _step.answers.push_back({client, call, {std::move(answer)}});
  }

  ModelStorebags::Found storebagFor(const Session& session);
  // Messages.
  Backends backendsFrom(const Dictionary& section, const Dictionary& info,
                        const std::optional<Dictionary>& userInfo);
  std::string dispatch(Session& session, const std::optional<std::uint16_t>& category,
                       const std::optional<std::uint16_t>& type,
                       const std::optional<Dictionary>& payload, std::int32_t flag);
  void sendStart(Session& session);
  void aggregate(Session& session, const Message& message);
  void deliver(const Session& to, const std::optional<Dictionary>& message, const Message& content,
               double timestamp);
  static std::string statesOf(const Session& session);
  static bool wantsUserInfo(const std::optional<Dictionary>& info);

  // Chains.
  void receive(Session& session, const std::optional<Dictionary>& userInfo);
  void settle(Session& session);
  void join(Session& session);
  void leaveGroups(const Session& session);
  void updateDownstream(Session& session);
  void follow(Session& session);
  void stopAggregation(Session& session);
  Group groupOf(const Session& session) const;
  static std::string keyOf(const Session& session);
  static std::int32_t levelOf(const Session& session);
  static Session* firstAt(std::int32_t level, const Group& group);
  Session* aggregatorAbove(const Session& session) const;

  Facts _facts;
  double _end = 0;  // when the step ends; time stands still but for a fetch
  Step _step;
  Books _books;
  ModelStorebags _storebags;
  std::map<int, std::unique_ptr<Session>> _sessions;
  std::map<std::string, Group> _groups;  // in order of joining
};

}  // namespace corvid::simulation
