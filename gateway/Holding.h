// Messages on their way into the log, held until it has them.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "gateway/Budget.h"
#include "gateway/Ledger.h"
#include "gateway/Mailbox.h"
#include "gateway/log/MessageLog.h"

namespace corvid::fleet {

// Publishes each message, and once more wherever the log does not answer: a message's ID is the
// same each time, so that it is stored once. Gives up at the message's deadline.
//
// Threads   that of the mailbox's loop.
class Holding {
 public:
  using Time = std::chrono::steady_clock::time_point;
  // Nothing: stored.
  using Done = std::function<void(std::optional<Rule>)>;

  // All are borrowed; `log` may call back after this has gone.
  // `waiting` counts what is held, beside others.
  Holding(LogPublisher& log, std::shared_ptr<Mailbox> mailbox, Ledger& ledger,
          std::atomic<std::size_t>& waiting)
      : _log(log), _mailbox(std::move(mailbox)), _ledger(ledger), _waiting(waiting) {}
  ~Holding() { _mailbox->close(); }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;

  // `done` hears once what became of it: nothing, logRefused, logUnanswered at `deadline`, or
  // memoryFull or clientMemory at once where the charge cannot be raised for the copy that the log
  // has.
  void hold(LogMessage message, Budget::Charge charge, Time deadline, Done done);
  // Publishes what waits, and gives up what has waited too long. To be called often.
  void look(Time now);

 private:
  // Between two attempts to publish the same message.
  static constexpr std::chrono::milliseconds pause{200};

  struct Held {
    LogMessage message;
    Budget::Charge charge;
    Time deadline;
    Done done;
    Time next{};  // attempt, where none is under way
    bool isUnderWay = false;
  };

  void publish(std::uint64_t number, Held& held);
  void answered(std::uint64_t number, Published answer);
  void settle(std::map<std::uint64_t, Held>::iterator held, std::optional<Rule> rule);

  LogPublisher& _log;
  const std::shared_ptr<Mailbox> _mailbox;
  Ledger& _ledger;
  std::atomic<std::size_t>& _waiting;
  std::uint64_t _last = 0;
  std::map<std::uint64_t, Held> _held;
};

}  // namespace corvid::fleet
