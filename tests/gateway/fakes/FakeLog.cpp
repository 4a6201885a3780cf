#include "tests/gateway/fakes/FakeLog.h"

#include <utility>

#include "base/Thread.h"

namespace corvid::fleet {

FakeLog::FakeLog(Mode mode, bool keepsBodies)
    : _keepsBodies(keepsBodies), _mode(mode), _thread(startThread("fake-log", [this] { run(); })) {}

FakeLog::~FakeLog() {
  {
    const MutexLock lock(_mutex);
    _isEnding = true;
  }
  _changed.notify_one();
  _thread.join();
}

void FakeLog::publish(LogMessage message, Completion completion) {
  {
    const MutexLock lock(_mutex);
    ++_published;
    _waiting.push_back({std::move(message), std::move(completion)});
  }
  _changed.notify_one();
}

bool FakeLog::isReady() const {
  const MutexLock lock(_mutex);
  return _isReady;
}

void FakeLog::setMode(Mode mode) {
  {
    const MutexLock lock(_mutex);
    _mode = mode;
  }
  _changed.notify_one();
}

void FakeLog::setReady(bool isReady) {
  const MutexLock lock(_mutex);
  _isReady = isReady;
}

std::vector<LogMessage> FakeLog::messages() const {
  const MutexLock lock(_mutex);
  return _stored;
}

std::size_t FakeLog::published() const {
  const MutexLock lock(_mutex);
  return _published;
}

void FakeLog::run() {
  for (;;) {
    std::deque<Waiting> taken;
    std::vector<Published> answers;
    {
      const MutexLock lock(_mutex);
      while (!_isEnding && (_waiting.empty() || _mode == Mode::silent)) _changed.wait(_mutex);
      if (_waiting.empty()) return;
      taken.swap(_waiting);
      for (Waiting& each : taken) answers.push_back(take(each.message));
    }
    for (std::size_t i = 0; i < taken.size(); ++i) taken[i].completion(answers[i]);
  }
}

Published FakeLog::take(LogMessage& message) {
  switch (_mode) {
    case Mode::refuses: return Published::refused;
    case Mode::failsToAnswer:
    case Mode::silent: return Published::unanswered;
    case Mode::stores: break;
  }
  if (_keepsBodies && _ids.insert(message.id).second) _stored.push_back(std::move(message));
  return Published::stored;
}

}  // namespace corvid::fleet
