#include "tests/soak/Oracle.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

#include "tests/soak/Assignment.h"
#include "tests/soak/Kinds.h"

namespace corvid::soak {

namespace {

constexpr std::size_t mostComplaints = 40;

// The longest that an exchange is under way while a server hangs.
constexpr Time exchangeWithHang = 90'000;
// The longest from the order to stop to the end.
constexpr Time stopTime = 15'000;

const std::set<std::string> servers{"live", "bulk", "storebags"};

std::string listed(const Words& words) { return fmt::format("{}", fmt::join(words, ", ")); }

// What may have been counted where an answer came too late or not whole.
const Words anyFailure{"failed.closed",  "failed.connect", "failed.other",
                       "failed.timeout", "failed.tls",     "failed.tooLarge"};

Words wordsOf(const Arrival& arrival) {
  if (arrival.isBroken) return anyFailure;
  Words words = anyFailure;
  words.insert(fmt::format("refused.{}", arrival.status));
  return words;
}

}  // namespace

void Oracle::complain(std::string text) {
  if (_complaints.size() < mostComplaints)
    _complaints.push_back(std::move(text));
  else if (_complaints.size() == mostComplaints)
    _complaints.push_back("and more");
}

std::vector<std::string> Oracle::complaints() {
  for (const auto& [mark, event] : _history.events) judge(mark, event);
  for (const std::string& mark : _history.strangers)
    complain(fmt::format("{} arrived, and nobody sent it in this round", mark));
  for (const Life& life : _history.lives) {
    if (life.ending == Life::Ending::quiet) judgeRest(life);
    if (life.lostAtStop > 0) judgeStop(life);
  }
  judgeLog();
  return _complaints;
}

void Oracle::judge(const std::string& mark, const Event& event) {
  if (event.arrivals.size() > 1)
    complain(fmt::format("{} arrived {} times", mark, event.arrivals.size()));
  if (!event.answered) return;
  const auto session = _history.sessions.find(event.session);
  if (session == _history.sessions.end())
    return complain(fmt::format("{} is of a session that nobody opened", mark));
  ++_figures.answered;
  _figures.arrived += !event.arrivals.empty();
  judgeAnswered(mark, event, session->second);
}

void Oracle::judgeAnswered(const std::string& mark, const Event& event, const Session& session) {
  const std::vector<const Life*> lives = livesOf(event);
  if (lives.empty()) return complain(fmt::format("{} was answered while no daemon ran", mark));
  const Life* const onlyLife = lives.size() == 1 ? lives.front() : nullptr;
  Words allowed;
  for (const Life* const life : lives) allowed.merge(allowedWords(event, session, *life, _history));

  if (!event.dropped.empty()) {
    const std::string word = "dropped." + event.dropped;
    ++_figures.dropped[word];
    if (!event.arrivals.empty())
      complain(fmt::format("{} arrived, and was answered as {}", mark, word));
    if (!allowed.contains(word))
      complain(fmt::format("{} ({}) was answered as {}; allowed: {}", mark, session.kind, word,
                           listed(allowed)));
    if (onlyLife) ++_dropped[onlyLife][word];
    return;
  }
  if (!event.arrivals.empty()) {
    const Arrival& arrival = event.arrivals.front();
    if (onlyLife && !arrival.isTaken()) ++_missing[onlyLife][wordsOf(arrival)];
    return;
  }
  const bool inMemory = std::ranges::any_of(
      lives, [&](const Life* life) { return wasInMemory(event, session, *life); });
  ++_figures.missing[inMemory              ? "in memory at a kill"
                     : allowed.size() == 1 ? *allowed.begin()
                                           : "one of several"];
  if (inMemory) return;
  if (allowed.empty())
    return complain(fmt::format("{} ({}) was answered at {}, and has not arrived", mark,
                                session.kind, *event.answered));
  if (onlyLife) ++_missing[onlyLife][std::move(allowed)];
}

std::vector<const Life*> Oracle::livesOf(const Event& event) const {
  std::vector<const Life*> lives;
  for (const Life& life : _history.lives)
    if (life.begin <= *event.answered && life.end >= event.sent) lives.push_back(&life);
  return lives;
}

bool Oracle::wasInMemory(const Event& event, const Session& session, const Life& life) const {
  if (life.ending != Life::Ending::killed) return false;
  const Kind* const kind = kindNamed(session.kind);
  const bool hangs = std::ranges::any_of(_history.faults, [&](const Fault& fault) {
    return fault.kind == FaultKind::hang && kind && fault.target == kind->server &&
           fault.begin <= life.end && fault.end >= event.sent;
  });
  const Time underWay = hangs ? exchangeWithHang : exchangeTime;
  if (kind == nullptr || !kind->batches) return *event.answered >= life.end - underWay;
  if (session.ended && *session.ended < life.end - underWay) return false;
  return std::ranges::none_of(session.flushes, [&](const Flush& flush) {
    return flush.asked >= event.sent && flush.answered && *flush.answered <= life.end - underWay;
  });
}

void Oracle::judgeRest(const Life& life) {
  if (!life.after.adds()) complain("the ledger does not add up");
  if (life.after.held != 0 || life.after.underWay != 0)
    complain(fmt::format("at rest {} events are held and {} under way", life.after.held,
                         life.after.underWay));
  const Ledger counted = life.after.since(life.before);

  auto& missing = _missing[&life];
  std::int64_t taken = 0;
  const auto during = [&](const Arrival& arrival) {
    return arrival.time >= life.begin && arrival.time <= life.end;
  };
  for (const Arrival& arrival : _history.unmarked) {
    taken += during(arrival) && arrival.isTaken();
    if (during(arrival) && !arrival.isTaken()) ++missing[wordsOf(arrival)];
  }
  for (const auto& [mark, event] : _history.events)
    taken += std::ranges::count_if(event.arrivals, [&](const Arrival& arrival) {
      return during(arrival) && arrival.isTaken();
    });
  if (counted.delivered > taken)
    complain(fmt::format("{} events are counted as delivered, and collectors took {}",
                         counted.delivered, taken));

  for (const auto& [word, count] : _dropped[&life])
    if (count > counted.count(word))
      complain(fmt::format("{} events were answered as {}, and {} are counted", count, word,
                           counted.count(word)));
  if (const std::int64_t rest = unassigned(missing, counted.words); rest > 0) {
    std::string groups;
    for (const auto& [words, count] : missing)
      groups += fmt::format("; {} of [{}]", count, listed(words));
    complain(fmt::format("{} events did not arrive, or were answered badly, and are not counted{}",
                         rest, groups));
  }

  Words possible;
  for (const auto& [name, session] : _history.sessions)
    possible.merge(
        allowedWords({.session = name, .sent = session.opened}, session, life, _history));
  for (const auto& [word, count] : counted.words)
    if (!possible.contains(word))
      complain(
          fmt::format("{} events are counted as {}, for which there was no cause", count, word));
}

void Oracle::judgeStop(const Life& life) {
  const bool hadCause = std::ranges::any_of(_history.faults, [&](const Fault& fault) {
    return servers.contains(fault.target) && fault.begin <= life.end &&
           fault.end >= life.end - stopTime;
  });
  if (!hadCause)
    complain(
        fmt::format("{} events are lost at a stop, and every server was there", life.lostAtStop));
  const auto& missing = _missing[&life];
  const auto onlyThere = missing.find({"dropped.lostAtStop"});
  if (onlyThere != missing.end() && onlyThere->second > life.lostAtStop)
    complain(fmt::format("{} events can only be lost at the stop, where the daemon said {}",
                         onlyThere->second, life.lostAtStop));
}

void Oracle::judgeLog() {
  for (const std::string& line : _history.log)
    if (!isAllowedInLog(line, _history)) complain("no list allows the line: " + line);
}

}  // namespace corvid::soak
