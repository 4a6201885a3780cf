#include "gateway/Holding.h"

#include <utility>

namespace corvid::fleet {

void Holding::hold(LogMessage message, Budget::Charge charge, Time deadline, Done done) {
  if (!charge.raiseTo(charge.bytes() + message.body.size()))
    return done(charge.isBeyondShare() ? Rule::clientMemory : Rule::memoryFull);
  const std::uint64_t number = ++_last;
  Held& held =
      _held.emplace(number, Held{std::move(message), std::move(charge), deadline, std::move(done)})
          .first->second;
  ++_waiting;
  if (_log.isReady()) publish(number, held);
}

void Holding::publish(std::uint64_t number, Held& held) {
  held.isUnderWay = true;
  _log.publish(held.message, [this, number, mailbox = _mailbox](Published answer) {
    mailbox->post([this, number, answer] { answered(number, answer); });
  });
}

void Holding::answered(std::uint64_t number, Published answer) {
  const auto held = _held.find(number);
  if (held == _held.end()) return;  // given up before
  switch (answer) {
    case Published::stored: return settle(held, std::nullopt);
    case Published::refused: return settle(held, Rule::logRefused);
    case Published::unanswered:
      held->second.isUnderWay = false;
      held->second.next = std::chrono::steady_clock::now() + pause;
  }
}

void Holding::look(Time now) {
  const bool isReady = _log.isReady();
  for (auto each = _held.begin(); each != _held.end();) {
    const auto held = each++;
    if (held->second.deadline <= now) {
      settle(held, Rule::logUnanswered);
    } else if (isReady && !held->second.isUnderWay && held->second.next <= now) {
      if (held->second.next != Time()) _ledger.publishedAgain();
      publish(held->first, held->second);
    }
  }
}

void Holding::settle(std::map<std::uint64_t, Held>::iterator held, std::optional<Rule> rule) {
  const Done done = std::move(held->second.done);
  _held.erase(held);
  --_waiting;
  done(rule);
}

}  // namespace corvid::fleet
