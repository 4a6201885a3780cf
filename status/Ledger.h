// The account of every event: what was accepted, and what became of it.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Mutex.h"
#include "base/TimeValue.h"
#include "platform/Clock.h"
#include "status/Balance.h"
#include "status/Decision.h"
#include "status/DecisionWatcher.h"

namespace corvid {

class LedgerAccount;

// Names an event to the ledger; 0 names none.
struct EventMark {
  std::uint64_t position = 0;
};

// Counts each event once for each backend that it was offered to, and remembers what was decided of
// the last ones. Sums, accounts and memory change together: whoever looks finds that they add up.
//
// Threads   Any. No lock is held longer than it takes to count.
// Memory    Fixed, but for the names of hosts and while somebody watches records.
class Ledger : public std::enable_shared_from_this<Ledger> {
 public:
  // How many decisions, of events and of posts together, are remembered.
  static constexpr std::size_t remembered = 512;

  // What a host took of events.
  struct Host {
    std::uint64_t delivered = 0;
    std::uint64_t failed = 0;  // refused ones too
    std::optional<Clock::TimePoint> lastSuccess{};
    std::optional<Clock::TimePoint> lastFailure{};
    std::string failure{};  // the last one
  };

  // `clock` is borrowed.
  static std::shared_ptr<Ledger> create(Clock& clock) {
    return std::shared_ptr<Ledger>(new Ledger(clock));
  }

  // An event on its way past the backends. What they decide meanwhile is told to watchers at once,
  // when it goes.
  class Offer {
   public:
    Offer(std::shared_ptr<Ledger> ledger, EventMark mark)
        : _ledger(std::move(ledger)), _mark(mark) {}
    ~Offer() { _ledger->offered(_mark); }
    Offer(const Offer&) = delete;
    Offer& operator=(const Offer&) = delete;
    EventMark mark() const { return _mark; }
    // It meets no backend, for this reason.
    void drop(Reason reason) const { _ledger->dropOffered(_mark, reason); }
    // The reason of the first backend that could have taken it; nothing where one did, or where it
    // is no longer remembered.
    std::optional<Reason> whyNobodyTookIt() const { return _ledger->whyNobodyTook(_mark); }

   private:
    const std::shared_ptr<Ledger> _ledger;
    const EventMark _mark;
  };

  struct Event {
    std::uint64_t session = 0;
    std::uint16_t category = 0;
    std::uint16_t type = 0;
    std::int32_t flag = 0;
  };
  // Begins one, which counts as soon as a backend has decided of it.
  Offer offer(const Event& event) EXCLUDES(_mutex);
  // One that meets no backend: it is dropped, for this reason.
  void drop(const Event& event, Reason reason) EXCLUDES(_mutex) { offer(event).drop(reason); }

  // A session or a backend does not report, as was just decided, or a connection was refused.
  void countSilence(Reason reason) EXCLUDES(_mutex);
  void countRefusedConnection(Reason reason) EXCLUDES(_mutex);

  // `changed` is called when the number of held events is another than when takeChange() was called
  // last, once until then; with the ledger's lock held. Before the first event.
  void notify(std::function<void()> changed) { _changed = std::move(changed); }
  void takeChange() { _hasChanged = false; }

  // Nothing that is held or under way will be posted any more: it is lost. How many that were.
  // What comes after that counts no more.
  std::uint64_t close() EXCLUDES(_mutex);

  struct Totals {
    Balance balance;
    std::array<std::uint64_t, reasonCount> silent{};
    std::array<std::uint64_t, reasonCount> refusedConnections{};
    std::map<std::string, Host> hosts;
    std::uint64_t linesLost = 0;  // by watchers that did not keep up
  };
  Totals totals() const EXCLUDES(_mutex);

  // The youngest decisions, at most so many, oldest first; of one session where it is named.
  std::vector<Dictionary> latest(std::size_t most, std::optional<std::uint64_t> session) const
      EXCLUDES(_mutex);

  // From now on `watcher` hears of each decision. Until it is dropped.
  void watch(const std::shared_ptr<DecisionWatcher>& watcher) EXCLUDES(_mutex);
  // Whether somebody wants to see records.
  bool recordsAreWatched() const { return _recordsAreWatched.load(std::memory_order_relaxed); }

 private:
  friend class LedgerAccount;
  friend class Shipment;

  explicit Ledger(Clock& clock) : _clock(clock) {}

  void dropOffered(EventMark mark, Reason reason) EXCLUDES(_mutex);
  std::optional<Reason> whyNobodyTook(EventMark mark) EXCLUDES(_mutex);
  void offered(EventMark mark) EXCLUDES(_mutex);
  // The place of the next one, which is written to in place: its position is the last one then.
  Decision& makeRoom() REQUIRES(_mutex);
  // Null where it is remembered no more.
  Decision* at(std::uint64_t position) REQUIRES(_mutex);
  Verdict* verdictAt(EventMark mark, std::uint8_t backend) REQUIRES(_mutex);
  void tell(const Decision& decision) REQUIRES(_mutex);
  void tellOf(EventMark mark) REQUIRES(_mutex);
  void noteChange() REQUIRES(_mutex) {
    if (_changed && !_hasChanged.exchange(true)) _changed();
  }

  Clock& _clock;
  std::function<void()> _changed;  // constant after the first event
  std::atomic<bool> _hasChanged{false};
  std::atomic<bool> _recordsAreWatched{false};
  mutable Mutex _mutex;
  bool _closed GUARDED_BY(_mutex) = false;
  Balance _balance GUARDED_BY(_mutex);
  std::array<std::uint64_t, reasonCount> _silent GUARDED_BY(_mutex){};
  std::array<std::uint64_t, reasonCount> _refusedConnections GUARDED_BY(_mutex){};
  std::map<std::string, Host> _hosts GUARDED_BY(_mutex);
  std::uint64_t _events GUARDED_BY(_mutex) = 0;
  std::uint32_t _posts GUARDED_BY(_mutex) = 0;
  std::uint64_t _lastPosition GUARDED_BY(_mutex) = 0;
  std::vector<Decision> _decisions GUARDED_BY(_mutex);  // a ring, by position
  std::vector<std::weak_ptr<DecisionWatcher>> _watchers GUARDED_BY(_mutex);
  std::uint64_t _linesLost GUARDED_BY(_mutex) = 0;
};

// Events on their way out together. Whoever has it says what came of them; one that goes before
// that drops them as not flushed.
//
// Threads: one at a time.
class Shipment {
 public:
  Shipment() = default;
  Shipment(Shipment&& other) noexcept;
  Shipment& operator=(Shipment&& other) noexcept;
  ~Shipment();

  std::size_t size() const { return _marks.size(); }
  // Takes in those of another that has not begun a post either.
  void join(Shipment other);

  // JSON could not hold a value of the `at`th record.
  void noteUnwritable(std::size_t at, std::string_view key);
  // What leaves, in the order of the events, for those who watch records.
  void showRecords(const std::function<Dictionary(std::size_t at)>& record);
  // A post with `bytes` of body begins.
  void beginPost(std::string host, std::uint64_t bytes);

  // How it ended; each once, and the last that is said.
  void drop(Reason reason);
  void answered(int status);
  void failed(HTTPFailure kind, std::string_view what);

 private:
  friend class LedgerAccount;
  Shipment(std::shared_ptr<LedgerAccount> account, std::vector<EventMark> marks)
      : _account(std::move(account)), _marks(std::move(marks)) {}

  template <class Count, class Describe>
  void end(Outcome outcome, Reason reason, Count count, Describe describe);

  std::shared_ptr<LedgerAccount> _account;
  std::vector<EventMark> _marks;
  std::string _host{};
  std::uint64_t _postPosition = 0;
  Clock::TimePoint _begin{};
};

// What one backend of one session did with its events.
//
// Threads: any.
class LedgerAccount : public std::enable_shared_from_this<LedgerAccount> {
 public:
  LedgerAccount(std::shared_ptr<Ledger> ledger, std::uint64_t session, std::string_view backend);

  const Ledger& ledger() const { return *_ledger; }
  std::uint64_t session() const { return _session; }
  Balance balance() const;
  void countSilence(Reason reason) { _ledger->countSilence(reason); }

  // What becomes of an event that is being offered; one of these, once.
  void drop(EventMark mark, Reason reason);
  void deliver(EventMark mark);
  // `reason` says why it waits. `keys` is what filters did, `record` may be null.
  void hold(EventMark mark, Reason reason, const KeysChanged& keys, const Dictionary* record);
  Shipment ship(EventMark mark, const KeysChanged& keys, const Dictionary* record);

  // What becomes of those that were held.
  void dropHeld(const std::vector<EventMark>& marks, Reason reason);
  Shipment shipHeld(std::vector<EventMark> marks);

 private:
  friend class Shipment;

  // Adds the verdict to the event.
  Verdict* judge(EventMark mark, Outcome outcome, Reason reason) REQUIRES(_ledger->_mutex);
  std::shared_ptr<const KeysChanged> shared(const KeysChanged& keys) REQUIRES(_ledger->_mutex);
  template <class Change>
  void count(Change change) REQUIRES(_ledger->_mutex) {
    change(_ledger->_balance);
    change(_balance);
  }

  const std::shared_ptr<Ledger> _ledger;
  const std::uint64_t _session;
  const std::uint8_t _backend;
  Balance _balance GUARDED_BY(_ledger->_mutex);
  // Of the latest event: the next ones have mostly the same.
  std::shared_ptr<const KeysChanged> _latestKeys GUARDED_BY(_ledger->_mutex);
};

}  // namespace corvid
