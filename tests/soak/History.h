// What happened in a round of a soak, as its clients, its servers and its script saw it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tests/soak/Ledger.h"

namespace corvid::soak {

// Milliseconds of the machine's steady clock, which all processes share.
using Time = std::int64_t;
Time now();

enum class FaultKind {
  status404,
  status500,
  status503,
  refuse,      // no server listens
  hang,        // requests are read and never answered; broken off in the end
  slow,        // answers take a while
  reset,       // connections are reset in the handshake
  hangUp,      // connections are closed as soon as they are accepted
  garbage,     // connections get bytes that are no TLS
  expired,     // the certificate's time is over
  cutAnswer,   // the connection breaks within the answer
  clockStep,   // the daemon's wall clock jumps by hours
  clockWrong,  // by years, so that no certificate is valid
  fullDisk,    // the daemon's folder has no room left
  freezeDaemon,
  killDaemon,
  stopDaemon,
  reload,
  freezeClient,
  killClient,
};
std::string_view nameOf(FaultKind kind);

// A fault while it lasted; `target` is a server, else empty.
struct Fault {
  FaultKind kind;
  std::string target;
  Time begin = 0;
  Time end = 0;
};

struct Flush {
  Time asked = 0;
  std::optional<Time> answered{};
};

struct Session {
  std::string kind;
  Time opened = 0;
  std::optional<Time> ended{};  // by its client
  std::vector<Flush> flushes{};
};

// A post's record as a collector had it.
struct Arrival {
  Time time = 0;
  int status = 200;       // what was answered
  bool isBroken = false;  // the answer was meant to be cut or never to come
  bool isTaken() const { return !isBroken && status >= 200 && status < 300; }
};

struct Event {
  std::string session;
  Time sent = 0;
  std::optional<Time> answered{};
  std::string dropped{};  // the reason that the answer gave; empty where it was taken
  std::vector<Arrival> arrivals{};
};

// One daemon, as far as the round had it.
struct Life {
  enum class Ending { quiet, killed, stopped };
  Time begin = 0;
  Time end = 0;
  Ending ending = Ending::quiet;
  std::int64_t lostAtStop = 0;  // as its log says
  Ledger before{};              // when the round began
  Ledger after{};               // at its last sight; with Ending::quiet when nothing was left to do
};

struct History {
  std::map<std::string, Session> sessions;
  std::map<std::string, Event> events;
  std::vector<Arrival> unmarked;       // of the daemon's own messages
  std::vector<std::string> strangers;  // marks that arrived and belong to no event of the round
  std::vector<Fault> faults;
  std::vector<Life> lives;
  std::vector<std::string> log;  // the daemons' lines
};

}  // namespace corvid::soak
