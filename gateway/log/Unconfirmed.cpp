#include "gateway/log/Unconfirmed.h"

#include <utility>

namespace corvid::fleet {

namespace {

// With what stands beside the texts, roughly.
std::size_t sizeOf(const LogMessage& message) {
  constexpr std::size_t entry = 400;
  std::size_t size = entry + message.body.size();
  for (const auto& [name, value] : message.headers) size += name.size() + value.size();
  return size;
}

template <class Answers>
void tell(const Answers& answers) {
  for (const auto& [completion, outcome] : answers) completion(outcome);
}

}  // namespace

bool Unconfirmed::add(LogMessage message, LogPublisher::Completion completion) {
  const std::size_t size = sizeOf(message);
  const MutexLock lock(_mutex);
  if (_bytes + size > _most) {
    _answers.emplace_back(std::move(completion), Published::unanswered);
    return false;
  }
  _bytes += size;
  _entries.emplace(++_added, Entry{std::make_shared<LogMessage>(std::move(message)),
                                   std::move(completion),
                                   Clock::now() + _patience,
                                   {}});
  _unsent.push_back(_added);
  return true;
}

void Unconfirmed::answerLater(LogPublisher::Completion completion, Published outcome) {
  const MutexLock lock(_mutex);
  _answers.emplace_back(std::move(completion), outcome);
}

std::shared_ptr<const LogMessage> Unconfirmed::takeUnsent() {
  const MutexLock lock(_mutex);
  while (!_unsent.empty()) {
    const Key key = _unsent.front();
    _unsent.pop_front();
    const auto entry = _entries.find(key);
    if (entry == _entries.end()) continue;
    _sent.push_back(key);
    entry->second.sent = Clock::now();
    return entry->second.message;
  }
  return nullptr;
}

void Unconfirmed::beginConnection() {
  const MutexLock lock(_mutex);
  _sent.clear();
  _firstSent = 1;
  _unsent.clear();
  for (const auto& [key, entry] : _entries) _unsent.push_back(key);
}

std::vector<Unconfirmed::Key> Unconfirmed::takeSent(std::uint64_t number, bool withEarlier) {
  std::vector<Key> taken;
  if (number < _firstSent || number >= _firstSent + _sent.size()) return taken;
  for (std::uint64_t at = withEarlier ? _firstSent : number; at <= number; ++at)
    if (const Key key = std::exchange(_sent[at - _firstSent], 0); key != 0) taken.push_back(key);
  for (; !_sent.empty() && _sent.front() == 0; ++_firstSent) _sent.pop_front();
  return taken;
}

void Unconfirmed::remove(Key key, Published outcome, std::vector<Answer>& answers) {
  const auto entry = _entries.find(key);
  if (entry == _entries.end()) return;
  _bytes -= sizeOf(*entry->second.message);
  answers.emplace_back(std::move(entry->second.completion), outcome);
  _entries.erase(entry);
}

void Unconfirmed::confirm(std::uint64_t number, bool withEarlier, Published outcome) {
  std::vector<Answer> answers;
  {
    const MutexLock lock(_mutex);
    for (const Key key : takeSent(number, withEarlier)) remove(key, outcome, answers);
  }
  tell(answers);
}

Unconfirmed::Clock::time_point Unconfirmed::expire(Clock::time_point now) {
  std::vector<Answer> answers;
  Clock::time_point next = Clock::time_point::max();
  {
    const MutexLock lock(_mutex);
    answers.swap(_answers);
    // All have the same patience, so that the first added is the first to go.
    while (!_entries.empty() && _entries.begin()->second.deadline <= now)
      remove(_entries.begin()->first, Published::unanswered, answers);
    if (!_entries.empty()) next = _entries.begin()->second.deadline;
    while (!_unsent.empty() && !_entries.contains(_unsent.front())) _unsent.pop_front();
  }
  tell(answers);
  return next;
}

std::size_t Unconfirmed::bytes() const {
  const MutexLock lock(_mutex);
  return _bytes;
}

std::optional<Unconfirmed::Clock::time_point> Unconfirmed::waitingSince() const {
  const MutexLock lock(_mutex);
  for (const Key key : _sent)
    if (const auto entry = _entries.find(key); key != 0 && entry != _entries.end())
      return entry->second.sent;
  return std::nullopt;
}

}  // namespace corvid::fleet
