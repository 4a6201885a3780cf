#include "tests/soak/Causes.h"

#include <algorithm>
#include <span>
#include <vector>

#include "tests/soak/Kinds.h"

namespace corvid::soak {

namespace {

using enum FaultKind;

// The most that passes between a fault's end and the last event that it meets.
constexpr Time afterwards = 5000;

using List = std::vector<std::string_view>;

// What a fault of the collector does to the events that it meets.
List wordsOfCollector(FaultKind kind) {
  switch (kind) {
    case status404: return {"refused.404"};
    case status500: return {"refused.500"};
    case status503: return {"refused.503"};
    // Connections are broken at the fault's begin or end too.
    case refuse: return {"failed.connect", "failed.closed", "failed.other", "failed.tls"};
    case hang:
      return {"failed.timeout", "failed.closed",    "failed.connect",    "failed.other",
              "failed.tls",     "failed.queueFull", "dropped.lostAtStop"};
    // A stop waits ten seconds, in which it answers no more than two hundred posts.
    case slow: return {"dropped.lostAtStop"};
    case reset:
    case hangUp:
    case garbage: return {"failed.connect", "failed.closed", "failed.other", "failed.tls"};
    case expired: return {"failed.tls", "failed.closed", "failed.other", "failed.connect"};
    case cutAnswer: return {"failed.closed", "failed.other"};
    default: return {};
  }
}

// What it leaves to the session, whose state it has changed.
List wordsThatLast(FaultKind kind) {
  if (kind == status500 || kind == status503)
    return {"dropped.disabledByServer", "dropped.notFlushed"};
  return {};
}

// What a fault of the storebag server does to sessions that are configured meanwhile.
List wordsOfStorebags(FaultKind kind) {
  switch (kind) {
    case status404:
    case status500:
    case status503: return {"dropped.storebagMalformed", "dropped.notConfigured"};
    case hang:
    case reset:
    case hangUp:
    case garbage: return {"dropped.storebagUnreachable", "dropped.notConfigured"};
    case cutAnswer:
      return {"dropped.storebagUnreachable", "dropped.storebagMalformed", "dropped.notConfigured"};
    default: return {};
  }
}

// What a wall clock does that is years off.
const List wordsOfWrongClock{"failed.tls", "dropped.storebagUnreachable", "dropped.notConfigured",
                             "dropped.lostAtStop"};

void add(Words& words, const List& list) { words.insert(list.begin(), list.end()); }

// When it is settled what became of the event; the life's end where that is not known.
Time settled(const Event& event, const Session& session, const Kind& kind, const Life& life) {
  Time latest = life.end;
  if (!event.answered) return latest;
  if (!kind.batches) return std::min(latest, *event.answered + exchangeTime);
  if (session.ended) latest = std::min(latest, *session.ended + exchangeTime);
  for (const Flush& flush : session.flushes)
    if (flush.asked >= event.sent && flush.answered)
      latest = std::min(latest, *flush.answered + exchangeTime);
  return latest;
}

bool overlap(const Fault& fault, Time from, Time until) {
  return fault.begin <= until && fault.end + afterwards >= from;
}

// A line of the log, from its text on: how it begins, and what must have been there for it.
struct Line {
  std::string_view beginning;
  std::vector<FaultKind> kinds{};  // one of these; none: nothing
};

const std::vector<Line>& allowedLines() {
  static const std::vector<FaultKind> breaking{refuse,  hang,    reset,     hangUp,
                                               garbage, expired, cutAnswer, clockWrong};
  static const std::vector<FaultKind> spoiling{status404, status500, status503, hang,
                                               reset,     garbage,   cutAnswer, clockWrong};
  static const std::vector<Line> lines{
      // Clients of no known type, without a host, that break the protocol, and that come while
      // others before them are still being served.
      {"fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type 3"},
      {"fetchAndCacheStorebag: Unable to fetch storebag for client type 3"},
      {"fetchStorebagWithName: propertyListWithData error Text where an element is expected"},
      {"fetchStorebagWithName: Signature is missing"},
      {"HTTPSPostBackend(postJsonMessage): post error: nnnnnnnn"},
      {"IPCConnection: connection "},
      {"IPCListener: Process "},
      // Collectors.
      {"HTTPSPostBackend(postJsonMessage): post error: localhost:", breaking},
      {"HTTPClient: ", {hang}},
      {"main: Stopped with ", {stopDaemon}},
      // The storebag server.
      {"fetchStorebagWithName: ", spoiling},
      {"fetchStorebagForEnvironmentAndClientType: Could not fetch storebag for client type ",
       spoiling},
      {"fetchAndCacheStorebag: Unable to fetch storebag for client type ", spoiling},
      // The disk.
      {"writeToLogFile: A log message is lost: ", {fullDisk}},
      {"writeToLogFile: Failed to create new corvidd log file ", {fullDisk}},
      {"keepStorebag: ", {fullDisk}},
      {"FilePreferences: ", {fullDisk}},
  };
  return lines;
}

}  // namespace

Words allowedWords(const Event& event, const Session& session, const Life& life,
                   const History& history) {
  Words words;
  const Kind* const kind = kindNamed(session.kind);
  if (kind == nullptr) return words;
  add(words, kind->words);
  // A daemon that comes anew configures the session again.
  const Time configured = std::max(session.opened, life.begin);
  const Time until = settled(event, session, *kind, life);
  for (const Fault& fault : history.faults) {
    const bool meetsEvent = overlap(fault, event.sent, until);
    const bool metSession = overlap(fault, configured, until);
    if (fault.target == "storebags") {
      if (metSession && !kind->storebag.empty()) add(words, wordsOfStorebags(fault.kind));
    } else if (fault.kind == clockWrong) {
      if (metSession) add(words, wordsOfWrongClock);
    } else if (fault.target == kind->server && !kind->server.empty()) {
      if (meetsEvent) add(words, wordsOfCollector(fault.kind));
      if (metSession) add(words, wordsThatLast(fault.kind));
    }
  }
  // A daemon says at its stop when it loses something.
  if (life.lostAtStop == 0) words.erase("dropped.lostAtStop");
  return words;
}

bool isAllowedInLog(std::string_view line, const History& history) {
  constexpr std::string_view name = "corvidd[";
  constexpr std::string_view behindNumber = "]: ";
  const std::size_t number = line.find(name);
  const std::size_t colon = line.find(behindNumber, std::min(number, line.size()));
  if (colon == line.npos) return false;
  const std::string_view text = line.substr(colon + behindNumber.size());
  return std::ranges::any_of(allowedLines(), [&](const Line& allowed) {
    if (!text.starts_with(allowed.beginning)) return false;
    if (allowed.kinds.empty()) return true;
    return std::ranges::any_of(history.faults, [&](const Fault& fault) {
      return std::ranges::find(allowed.kinds, fault.kind) != allowed.kinds.end();
    });
  });
}

}  // namespace corvid::soak
