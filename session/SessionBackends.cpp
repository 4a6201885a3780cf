#include "session/SessionBackends.h"

#include <string_view>

#include "base/Log.h"
#include "base/Mutex.h"
#include "config/MessageLog.h"
#include "protocol/Keys.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

// One for all sessions: guards what the backends' completions of a flush share. Callers'
// completions run under it, one at a time; re-entrant, because a completion may start the next
// flush.
constinit RecursiveMutex flushMutex;

bool reports(BackendState state) {
  return state == BackendState::sending || state == BackendState::held;
}

// Outlives its session where it must.
class PendingFlush {
 public:
  PendingFlush(std::size_t backends, FlushCompletion completion)
      : _pending(static_cast<std::ptrdiff_t>(backends)), _completion(std::move(completion)) {}

  // Answers the caller at the first error or after the last backend, and never again.
  void backendAnswered(std::optional<std::string> result, std::optional<CorvidError> error) {
    const RecursiveLock lock(flushMutex);
    --_pending;
    if (!_completion || (!error && _pending > 0)) return;
    std::exchange(_completion, nullptr)(std::move(result), std::move(error));
  }

 private:
  std::ptrdiff_t _pending GUARDED_BY(flushMutex);
  FlushCompletion _completion GUARDED_BY(flushMutex);
};

}  // namespace

std::optional<std::string> SessionBackends::send(const SessionMessage& message,
                                                 const TimeValue& now, EventMark mark) const {
  std::optional<std::string> reply;
  for (const auto& [key, backend] : _table) {
    const LoggingBackend logged(key);
    auto result = backend->sendMessage(message.payload, now, message.category, message.type,
                                       message.flag, mark);
    if (!result) continue;
    writeToLogFile("[{} -> sendMessageWithDictionary] {}", key, *result);
    const std::string& name = backend->name();
    if (name == kCorvidBackendHTTPPost ? !result->empty()
                                       : name == kCorvidBackendDashboard && !reply)
      reply = std::move(result);
  }
  return reply;
}

void SessionBackends::flush(FlushCompletion completion) const {
  const auto flush = std::make_shared<PendingFlush>(_table.size(), std::move(completion));
  for (const auto& [key, backend] : _table) {
    const LoggingBackend logged(key);
    backend->flushMessagesWithCompletion(
        [flush, key = key, name = backend->name()](auto result, auto error) {
          logDebug("internalFlushMessagesWithCompletion: {}", name);
          if (result) writeToLogFile("[{} -> flushMessages] {}", key, *result);
          flush->backendAnswered(std::move(result), std::move(error));
        });
  }
}

std::vector<StatesReport::Backend> SessionBackends::report() const {
  std::vector<StatesReport::Backend> all;
  for (const auto& [key, backend] : _table) {
    const auto [state, reason] = backend->standing();
    all.push_back({key, wordOf(state), reason, reports(state)});
  }
  return all;
}

Array SessionBackends::reportingStates() const {
  Array names;
  for (const auto& [key, backend] : _table) {
    if (reports(backend->state())) names.emplace_back(key);
  }
  return names;
}

std::int32_t SessionBackends::hierarchy() const {
  for (const std::string_view key : {kCorvidBackendHTTPPost2, kCorvidBackendHTTPPost})
    if (const CorvidBackend* backend = named(key)) return backend->hierarchy();
  return 0;
}

std::optional<std::string> SessionBackends::displayURL() const {
  for (const std::string_view key :
       {kCorvidBackendHTTPPost, kCorvidBackendHTTPPost2, kCorvidBackendDashboard})
    if (const CorvidBackend* backend = named(key))
      if (auto displayURL = backend->displayURL()) return displayURL;
  return std::nullopt;
}

void SessionBackends::follow(const SessionBackends* parent, std::uint64_t number) const {
  for (const auto& [key, backend] : _table) {
    if (backend->state() == BackendState::held) continue;
    const LoggingBackend logged(key);
    backend->setFollowed(number);
    const CorvidBackend* followed = parent ? parent->named(key) : nullptr;
    if (!followed) {
      backend->settle(BackendState::disabled, Reason::parentLacksBackend);
      continue;
    }
    const CorvidBackend::Standing standing = followed->standing();
    const std::optional<double> threshold = followed->samplingThreshold();
    backend->takeOver(standing);
    backend->setSamplingThreshold(threshold);
    const auto why = loggingReason(standing.reason);
    logDebug(
        "HTTPSPostBackend(syncReportingStates): {}: state and sampling rate updated to {}, {:.2f}%",
        backend->name(), static_cast<std::int32_t>(standing.state),
        static_cast<double>(static_cast<float>(threshold.value_or(0))));
  }
}

void SessionBackends::missParent(std::uint32_t sessionID) const {
  for (const auto& [key, backend] : _table) {
    const LoggingBackend logged(key);
    if (const std::int32_t hierarchy = backend->hierarchy(); hierarchy >= 1)
      logInfo(
          "syncReportingStates: child session {} (backend {}) with hierarchy {} is missing its parent",
          sessionID, backend->name(), hierarchy);
  }
}

const CorvidBackend* SessionBackends::named(std::string_view key) const {
  const auto found = _table.find(std::string(key));
  return found == _table.end() ? nullptr : found->second.get();
}

}  // namespace corvid
