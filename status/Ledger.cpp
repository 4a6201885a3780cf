#include "status/Ledger.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/Text.h"

namespace corvid {

static_assert(Ledger::remembered * (sizeof(Decision) + KeysChanged::mostBytes + 48) <= 256 * 1024,
              "what is remembered stays small");

// ---- Ledger

Ledger::Offer Ledger::offer(const Event& event) {
  const MutexLock lock(_mutex);
  auto& decision = makeRoom().emplace<EventDecision>();
  decision.number = ++_events;
  decision.time = _clock.now().asDouble();
  decision.session = event.session;
  decision.category = event.category;
  decision.type = event.type;
  decision.flag = event.flag;
  decision.isBeingOffered = true;
  return {shared_from_this(), EventMark{_lastPosition}};
}

void Ledger::dropOffered(EventMark mark, Reason reason) {
  const MutexLock lock(_mutex);
  if (_closed) return;
  if (Decision* const decision = at(mark.position))
    std::get<EventDecision>(*decision).withoutBackends = reason;
  ++_balance.accepted;
  ++_balance.dropped[static_cast<std::size_t>(reason)];
}

std::optional<Reason> Ledger::whyNobodyTook(EventMark mark) {
  const MutexLock lock(_mutex);
  const Decision* const decision = at(mark.position);
  if (decision == nullptr) return std::nullopt;
  const EventDecision& event = std::get<EventDecision>(*decision);
  if (event.backends == 0) {
    const bool isDropped = event.withoutBackends != Reason::reporting;
    return isDropped ? std::optional(event.withoutBackends) : std::nullopt;
  }
  Reason why = Reason::takesNoEvents;
  for (std::size_t i = 0; i < event.backends; ++i) {
    const Verdict& verdict = event.verdicts[i];
    if (verdict.outcome != Outcome::dropped) return std::nullopt;
    if (why == Reason::takesNoEvents) why = verdict.reason;
  }
  return why;
}

void Ledger::offered(EventMark mark) {
  const MutexLock lock(_mutex);
  Decision* const decision = at(mark.position);
  if (decision == nullptr) return;
  std::get<EventDecision>(*decision).isBeingOffered = false;
  tell(*decision);
}

void Ledger::countSilence(Reason reason) {
  const MutexLock lock(_mutex);
  ++_silent[static_cast<std::size_t>(reason)];
}

void Ledger::countRefusedConnection(Reason reason) {
  const MutexLock lock(_mutex);
  ++_refusedConnections[static_cast<std::size_t>(reason)];
}

std::uint64_t Ledger::close() {
  const MutexLock lock(_mutex);
  if (std::exchange(_closed, true)) return 0;
  const std::uint64_t lost = _balance.held + _balance.underWay;
  _balance.dropped[static_cast<std::size_t>(Reason::lostAtStop)] += lost;
  _balance.held = _balance.underWay = 0;
  for (Decision& decision : _decisions) {
    auto* const event = std::get_if<EventDecision>(&decision);
    if (event == nullptr) continue;
    for (std::size_t i = 0; i < event->backends; ++i) {
      Verdict& verdict = event->verdicts[i];
      if (verdict.outcome != Outcome::held && verdict.outcome != Outcome::underWay) continue;
      verdict.outcome = Outcome::dropped;
      verdict.reason = Reason::lostAtStop;
    }
  }
  return lost;
}

Ledger::Totals Ledger::totals() const {
  const MutexLock lock(_mutex);
  return {_balance, _silent, _refusedConnections, _hosts, _linesLost};
}

std::vector<Dictionary> Ledger::latest(std::size_t most,
                                       std::optional<std::uint64_t> session) const {
  std::vector<Decision> found;
  {
    const MutexLock lock(_mutex);
    const std::uint64_t count = std::min<std::uint64_t>(_lastPosition, remembered);
    for (std::uint64_t position = _lastPosition;
         position > _lastPosition - count && found.size() < most; --position) {
      const Decision& decision = _decisions[position % remembered];
      if (!session || sessionOf(decision) == *session) found.push_back(decision);
    }
  }
  std::vector<Dictionary> result;
  result.reserve(found.size());
  for (auto each = found.rbegin(); each != found.rend(); ++each)
    result.push_back(toDictionary(*each, false));
  return result;
}

Decision& Ledger::makeRoom() {
  const std::uint64_t position = _lastPosition + 1;
  if (_decisions.size() < remembered)
    _decisions.resize(std::min<std::size_t>(position + 1, remembered));
  _lastPosition = position;
  return _decisions[position % remembered];
}

Decision* Ledger::at(std::uint64_t position) {
  if (position == 0 || position + remembered <= _lastPosition) return nullptr;
  return &_decisions[position % remembered];
}

Verdict* Ledger::verdictAt(EventMark mark, std::uint8_t backend) {
  Decision* const decision = at(mark.position);
  if (decision == nullptr) return nullptr;
  EventDecision& event = std::get<EventDecision>(*decision);
  for (std::size_t i = 0; i < event.backends; ++i)
    if (event.verdicts[i].backend == backend) return &event.verdicts[i];
  return nullptr;
}

void Ledger::tellOf(EventMark mark) {
  if (_watchers.empty()) return;
  if (const Decision* const decision = at(mark.position)) tell(*decision);
}

void Ledger::tell(const Decision& decision) {
  if (_watchers.empty()) return;
  const auto* const event = std::get_if<EventDecision>(&decision);
  if (event != nullptr && event->isBeingOffered) return;
  bool recordsAreWatched = false;
  std::uint64_t lost = 0;
  std::erase_if(_watchers, [&](const auto& each) {
    // Held for the length of a call; its owner lets it go without this mutex.
    const auto watcher = each.lock();
    if (!watcher) return true;
    recordsAreWatched = recordsAreWatched || watcher->wantsRecords();
    lost += !watcher->hear(decision);
    return false;
  });
  _linesLost += lost;
  _recordsAreWatched = recordsAreWatched;
}

void Ledger::watch(const std::shared_ptr<DecisionWatcher>& watcher) {
  const MutexLock lock(_mutex);
  _watchers.push_back(watcher);
  if (watcher->wantsRecords()) _recordsAreWatched = true;
}

// ---- LedgerAccount

LedgerAccount::LedgerAccount(std::shared_ptr<Ledger> ledger, std::uint64_t session,
                             std::string_view backend)
    : _ledger(std::move(ledger)), _session(session), _backend(numberOfBackend(backend)) {}

Balance LedgerAccount::balance() const {
  const MutexLock lock(_ledger->_mutex);
  return _balance;
}

Verdict* LedgerAccount::judge(EventMark mark, Outcome outcome, Reason reason) {
  Decision* const decision = _ledger->at(mark.position);
  if (decision == nullptr) return nullptr;
  EventDecision& event = std::get<EventDecision>(*decision);
  if (event.backends == EventDecision::mostBackends) return nullptr;
  Verdict& verdict = event.verdicts[event.backends++];
  verdict.backend = _backend;
  verdict.outcome = outcome;
  verdict.reason = reason;
  return &verdict;
}

std::shared_ptr<const KeysChanged> LedgerAccount::shared(const KeysChanged& keys) {
  if (keys.empty()) return nullptr;
  if (!_latestKeys || *_latestKeys != keys) _latestKeys = std::make_shared<const KeysChanged>(keys);
  return _latestKeys;
}

void LedgerAccount::drop(EventMark mark, Reason reason) {
  const MutexLock lock(_ledger->_mutex);
  if (_ledger->_closed) return;
  judge(mark, Outcome::dropped, reason);
  count([reason](Balance& balance) {
    ++balance.accepted;
    ++balance.dropped[static_cast<std::size_t>(reason)];
  });
}

void LedgerAccount::deliver(EventMark mark) {
  const MutexLock lock(_ledger->_mutex);
  if (_ledger->_closed) return;
  judge(mark, Outcome::delivered, Reason::reporting);
  count([](Balance& balance) {
    ++balance.accepted;
    ++balance.delivered;
  });
}

void LedgerAccount::hold(EventMark mark, Reason reason, const KeysChanged& keys,
                         const Dictionary* record) {
  const MutexLock lock(_ledger->_mutex);
  if (_ledger->_closed) return;
  if (Verdict* const verdict = judge(mark, Outcome::held, reason)) {
    verdict->keys = shared(keys);
    if (record) verdict->record = std::make_shared<const Dictionary>(*record);
  }
  count([](Balance& balance) {
    ++balance.accepted;
    ++balance.held;
  });
  _ledger->noteChange();
}

Shipment LedgerAccount::ship(EventMark mark, const KeysChanged& keys, const Dictionary* record) {
  {
    const MutexLock lock(_ledger->_mutex);
    if (_ledger->_closed) return {};
    if (Verdict* const verdict = judge(mark, Outcome::underWay, Reason::reporting)) {
      verdict->keys = shared(keys);
      if (record) verdict->record = std::make_shared<const Dictionary>(*record);
    }
    count([](Balance& balance) {
      ++balance.accepted;
      ++balance.underWay;
    });
  }
  return {shared_from_this(), {mark}};
}

void LedgerAccount::dropHeld(const std::vector<EventMark>& marks, Reason reason) {
  if (marks.empty()) return;
  const MutexLock lock(_ledger->_mutex);
  if (_ledger->_closed) return;
  count([&](Balance& balance) {
    balance.held -= marks.size();
    balance.dropped[static_cast<std::size_t>(reason)] += marks.size();
  });
  _ledger->noteChange();
  for (const EventMark mark : marks)
    if (Verdict* const verdict = _ledger->verdictAt(mark, _backend)) {
      verdict->outcome = Outcome::dropped;
      verdict->reason = reason;
      _ledger->tellOf(mark);
    }
}

Shipment LedgerAccount::shipHeld(std::vector<EventMark> marks) {
  if (marks.empty()) return {};
  {
    const MutexLock lock(_ledger->_mutex);
    if (_ledger->_closed) return {};
    count([&](Balance& balance) {
      balance.held -= marks.size();
      balance.underWay += marks.size();
    });
    _ledger->noteChange();
    for (const EventMark mark : marks)
      if (Verdict* const verdict = _ledger->verdictAt(mark, _backend)) {
        verdict->outcome = Outcome::underWay;
        verdict->reason = Reason::reporting;
        _ledger->tellOf(mark);
      }
  }
  return {shared_from_this(), std::move(marks)};
}

// ---- Shipment

Shipment::Shipment(Shipment&& other) noexcept
    : _account(std::move(other._account)),
      _marks(std::exchange(other._marks, {})),
      _host(std::move(other._host)),
      _postPosition(other._postPosition),
      _begin(other._begin) {}

Shipment& Shipment::operator=(Shipment&& other) noexcept {
  std::swap(_account, other._account);
  std::swap(_marks, other._marks);
  std::swap(_host, other._host);
  std::swap(_postPosition, other._postPosition);
  std::swap(_begin, other._begin);
  return *this;
}

Shipment::~Shipment() {
  try {
    drop(Reason::notFlushed);
  } catch (...) {
    // Without memory to tell whoever watches; what counts has been counted.
  }
}

void Shipment::join(Shipment other) {
  if (!_account) _account = other._account;
  _marks.insert(_marks.end(), other._marks.begin(), other._marks.end());
  other._account = nullptr;
}

void Shipment::noteUnwritable(std::size_t at, std::string_view key) {
  if (!_account || at >= _marks.size()) return;
  Ledger& ledger = *_account->_ledger;
  const MutexLock lock(ledger._mutex);
  Verdict* const verdict = ledger.verdictAt(_marks[at], _account->_backend);
  if (verdict == nullptr) return;
  KeysChanged keys = verdict->keys ? *verdict->keys : KeysChanged();
  keys.add(KeysChanged::Change::unwritable, key);
  verdict->keys = std::make_shared<const KeysChanged>(std::move(keys));
}

void Shipment::showRecords(const std::function<Dictionary(std::size_t at)>& record) {
  if (!_account || !_account->_ledger->recordsAreWatched()) return;
  Ledger& ledger = *_account->_ledger;
  const MutexLock lock(ledger._mutex);
  for (std::size_t i = 0; i < _marks.size(); ++i)
    if (Verdict* const verdict = ledger.verdictAt(_marks[i], _account->_backend))
      verdict->record = std::make_shared<const Dictionary>(record(i));
}

void Shipment::beginPost(std::string host, std::uint64_t bytes) {
  if (!_account || _marks.empty()) return;
  _host = std::move(host);
  Ledger& ledger = *_account->_ledger;
  const MutexLock lock(ledger._mutex);
  _begin = ledger._clock.steadyNow();
  auto& post = ledger.makeRoom().emplace<PostDecision>();
  post.number = ++ledger._posts;
  post.time = ledger._clock.now().asDouble();
  post.session = _account->_session;
  post.backend = _account->_backend;
  post.events = static_cast<std::uint32_t>(_marks.size());
  post.bytes = bytes;
  _postPosition = ledger._lastPosition;
  for (const EventMark mark : _marks)
    if (Verdict* const verdict = ledger.verdictAt(mark, _account->_backend))
      verdict->post = static_cast<std::uint32_t>(post.number);
}

template <class Count, class Describe>
void Shipment::end(Outcome outcome, Reason reason, Count count, Describe describe) {
  const std::shared_ptr<LedgerAccount> account = std::exchange(_account, nullptr);
  if (!account || _marks.empty()) return;
  const MutexLock lock(account->_ledger->_mutex);
  if (account->_ledger->_closed) return;
  const std::uint64_t events = _marks.size();
  account->count([&](Balance& balance) {
    balance.underWay -= events;
    count(balance) += events;
  });
  for (const EventMark mark : _marks)
    if (Verdict* const verdict = account->_ledger->verdictAt(mark, account->_backend)) {
      verdict->outcome = outcome;
      verdict->reason = reason;
      account->_ledger->tellOf(mark);
    }
  if (_postPosition == 0) return;
  const Clock::TimePoint now = account->_ledger->_clock.steadyNow();
  // What is no URL of a host is posted to nobody.
  Ledger::Host nobody;
  Ledger::Host& host = _host.empty() ? nobody : account->_ledger->_hosts[_host];
  PostDecision post;
  Decision* const remembered = account->_ledger->at(_postPosition);
  if (remembered) post = std::get<PostDecision>(*remembered);
  post.milliseconds = std::chrono::duration<double, std::milli>(now - _begin).count();
  describe(post, host);
  if (outcome == Outcome::delivered) {
    host.delivered += events;
    host.lastSuccess = now;
  } else {
    host.failed += events;
    host.lastFailure = now;
  }
  if (!remembered) return;
  *remembered = std::move(post);
  account->_ledger->tell(*remembered);
}

void Shipment::drop(Reason reason) {
  end(
      Outcome::dropped, reason,
      [reason](Balance& balance) -> std::uint64_t& {
        return balance.dropped[static_cast<std::size_t>(reason)];
      },
      [reason](PostDecision& post, Ledger::Host& host) {
        post.error = host.failure = wordOf(reason);
      });
}

void Shipment::answered(int status) {
  const bool isTaken = status >= 200 && status <= 299;
  end(
      isTaken ? Outcome::delivered : Outcome::refused, Reason::reporting,
      [&](Balance& balance) -> std::uint64_t& {
        return isTaken ? balance.delivered : balance.refused[status];
      },
      [&](PostDecision& post, Ledger::Host& host) {
        post.status = status;
        if (!isTaken) host.failure = "status " + std::to_string(status);
      });
}

void Shipment::failed(HTTPFailure kind, std::string_view what) {
  end(
      Outcome::failed, Reason::reporting,
      [kind](Balance& balance) -> std::uint64_t& {
        return balance.failed[static_cast<std::size_t>(kind)];
      },
      [&](PostDecision& post, Ledger::Host& host) {
        host.failure = replacingInvalidUTF8(what.substr(0, PostDecision::mostErrorBytes));
        post.error = host.failure;
      });
}

}  // namespace corvid
