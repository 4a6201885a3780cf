// Pushing out what the backends hold, with one outcome for the caller.
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "config/MessageLog.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

constexpr std::string_view noBackends = "No backends available to send message";

// One for all sessions. Callers' completions run under it, one at a time; re-entrant, because a
// completion may start the next flush.
constinit RecursiveMutex flushLock;

// What the backends' completions of one flush share. It outlives the session where it must.
class PendingFlush {
 public:
  PendingFlush(std::size_t backends, FlushCompletion completion)
      : _pending(static_cast<std::ptrdiff_t>(backends)), _completion(std::move(completion)) {}

  // Answers the caller at the first error or after the last backend, and never again.
  void backendAnswered(std::optional<std::string> result, std::optional<CorvidError> error) {
    const RecursiveLock lock(flushLock);
    --_pending;
    if (!_completion || (!error && _pending > 0)) return;
    std::exchange(_completion, nullptr)(std::move(result), std::move(error));
  }

 private:
  std::ptrdiff_t _pending GUARDED_BY(flushLock);
  FlushCompletion _completion GUARDED_BY(flushLock);
};

}  // namespace

void CorviddSession::flushMessagesWithCompletion(FlushReply completion) {
  logDebug("flushMessagesWithCompletion: Flushing messages for session {}", sessionID());
  internalFlushMessagesWithCompletion(
      [reply = std::make_shared<FlushReply>(std::move(completion))](auto result, auto error) {
        (*reply)(std::move(result), std::move(error));
      });
}

void CorviddSession::internalFlushMessagesWithCompletion(FlushCompletion completion) {
  const auto table = backends();
  if (!table) {
    logDebug("internalFlushMessagesWithCompletion: {}", noBackends);
    if (completion) completion(std::nullopt, CorvidError::of(-1, std::string(noBackends)));
    return;
  }
  const auto flush = std::make_shared<PendingFlush>(table->size(), std::move(completion));
  for (const auto& [key, backend] : *table) {
    backend->flushMessagesWithCompletion(
        [flush, key = key, name = backend->name()](auto result, auto error) {
          logDebug("internalFlushMessagesWithCompletion: {}", name);
          if (result) writeToLogFile("[{} -> flushMessages] {}", key, *result);
          flush->backendAnswered(std::move(result), std::move(error));
        });
  }
}

}  // namespace corvid
