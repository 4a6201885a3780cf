#include "tests/gateway/rounds/Load.h"

#include <fmt/format.h>

#include "base/Reading.h"

namespace corvid::fleet {

Load::Load(LogPublisher& publisher, Options options)
    : _publisher(publisher),
      _options(std::move(options)),
      _lastAcknowledged(Clock::now()),
      _thread([this](const std::stop_token& stop) { run(stop); }) {}

std::string Load::idOf(std::size_t number) const {
  return fmt::format("{}-{}", _options.name, number);
}

std::string Load::bodyOf(std::size_t number) const {
  std::string body = idOf(number);
  while (body.size() < _options.bodyBytes)
    body += fmt::format(" {}", (body.size() * 2654435761U) ^ number);
  return body;
}

void Load::run(const std::stop_token& stop) {
  Clock::time_point next = Clock::now();
  for (std::size_t number = 0;; ++number) {
    std::this_thread::sleep_until(next);
    next = std::max(next, Clock::now() - std::chrono::milliseconds(10)) + _options.interval;
    {
      std::unique_lock lock(_mutex);
      while (_underWay >= _options.underWay && !stop.stop_requested())
        _changed.wait_for(lock, std::chrono::milliseconds(50));
      if (stop.stop_requested()) return;
      ++_underWay;
      ++_sums.published;
      _messages.push_back({.published = Clock::now()});
    }
    _publisher.publish({.stream = _options.stream,
                        .id = idOf(number),
                        .headers = {{"number", std::to_string(number)}},
                        .body = bodyOf(number)},
                       [this, number](Published outcome) { answered(number, outcome); });
  }
}

void Load::answered(std::size_t number, Published outcome) {
  const std::lock_guard lock(_mutex);
  const Clock::time_point now = Clock::now();
  --_underWay;
  switch (outcome) {
    case Published::stored:
      _messages[number].acknowledged = now;
      ++_sums.acknowledged;
      _sums.longestGap = std::max(_sums.longestGap, now - _lastAcknowledged);
      _lastAcknowledged = now;
      break;
    case Published::refused: ++_sums.refused; break;
    case Published::unanswered: ++_sums.unanswered; break;
  }
  _changed.notify_all();
}

bool Load::finish() {
  _thread.request_stop();
  _thread.join();
  std::unique_lock lock(_mutex);
  return _changed.wait_for(lock, std::chrono::seconds(60), [this] { return _underWay == 0; });
}

std::size_t Load::published() const {
  const std::lock_guard lock(_mutex);
  return _sums.published;
}

std::size_t Load::acknowledged() const {
  const std::lock_guard lock(_mutex);
  return _sums.acknowledged;
}

std::optional<Load::Clock::duration> Load::acknowledgedAfter(Clock::time_point moment) const {
  const std::lock_guard lock(_mutex);
  std::optional<Clock::duration> least;
  for (auto message = _messages.rbegin(); message != _messages.rend(); ++message) {
    if (message->published < moment) break;
    if (message->acknowledged && (!least || *message->acknowledged - moment < *least))
      least = *message->acknowledged - moment;
  }
  return least;
}

void Load::found(const LoggedMessage& logged) {
  const std::lock_guard lock(_mutex);
  const std::string_view id = logged.message.id;
  if (!id.starts_with(_options.name + '-') && id.starts_with("round")) {
    ++_sums.late;
    return;
  }
  const auto number = numberFrom<std::size_t>(id.substr(id.rfind('-') + 1));
  if (!number || *number >= _messages.size() || id != idOf(*number) ||
      logged.message.body != bodyOf(*number)) {
    ++_sums.foreign;
    return;
  }
  ++_messages[*number].times;
}

bool Load::hasFoundAllAcknowledged() const {
  const std::lock_guard lock(_mutex);
  for (const Message& message : _messages)
    if (message.acknowledged && message.times == 0) return false;
  return true;
}

Load::Sums Load::sums() const {
  const std::lock_guard lock(_mutex);
  Sums sums = _sums;
  for (const Message& message : _messages) {
    if (message.acknowledged && message.times == 0) ++sums.lost;
    if (message.times > 1) sums.repeated += message.times - 1;
  }
  return sums;
}

}  // namespace corvid::fleet
