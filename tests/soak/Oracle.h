// What must hold after a round of a soak, whatever its faults were.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/soak/Causes.h"
#include "tests/soak/History.h"

namespace corvid::soak {

// Judges by what clients sent and were answered, what the collectors had, and what the daemon says
// of itself; it knows nothing of how the daemon works.
class Oracle {
 public:
  explicit Oracle(const History& history) : _history(history) {}

  // Each breach of these as a line, none where all hold:
  // - No event arrives twice, none that nobody sent, none of which the answer said that it was
  //   dropped. A reason in an answer is one that the event's cause allows.
  // - An event that was answered as taken has arrived; or some outcome is allowed for it; or the
  //   daemon was killed while it could have it in memory: a realtime event on its way, a batched
  //   one that no completed flush was asked for since.
  // - A daemon that came to rest has counted all that did not arrive, or was answered badly: each
  // can
  //   be put under a word that is allowed for it, and no word has more than the ledger counted.
  //   Words that nothing allows are not counted. Its ledger adds up, with nothing held or under
  //   way; it counts nothing as delivered that no collector took.
  // - A daemon that was told to stop loses something only where a server failed it then.
  // - Each line of the log stands in a list.
  std::vector<std::string> complaints();

  // Events that were answered, that arrived, that the answer called dropped, by its word, and
  // others that did not arrive: by word where there is one alone, else "one of several" or "in
  // memory".
  struct Figures {
    std::int64_t answered = 0;
    std::int64_t arrived = 0;
    std::map<std::string, std::int64_t> dropped{};
    std::map<std::string, std::int64_t> missing{};
  };
  const Figures& figures() const { return _figures; }

 private:
  void judge(const std::string& mark, const Event& event);
  void judgeAnswered(const std::string& mark, const Event& event, const Session& session);
  void judgeRest(const Life& life);
  void judgeStop(const Life& life);
  void judgeLog();
  std::vector<const Life*> livesOf(const Event& event) const;
  bool wasInMemory(const Event& event, const Session& session, const Life& life) const;
  void complain(std::string text);

  const History& _history;
  Figures _figures;
  std::vector<std::string> _complaints;
  // Of events that only this life can have had: what did not arrive well, and what was answered as
  // dropped.
  std::map<const Life*, std::map<Words, std::int64_t>> _missing;
  std::map<const Life*, std::map<std::string, std::int64_t>> _dropped;
};

}  // namespace corvid::soak
