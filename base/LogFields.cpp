#include "base/LogFields.h"

#include <utility>

namespace corvid {

namespace {
constinit thread_local LogFields fieldsOfThread;
}

std::string LogSubject::client() const {
  const MutexLock lock(_mutex);
  return _client;
}

void LogSubject::setClient(std::string client) {
  if (client.size() > mostClientBytes) client.resize(mostClientBytes);
  const MutexLock lock(_mutex);
  _client = std::move(client);
}

const LogFields& logFields() { return fieldsOfThread; }

std::shared_ptr<const LogSubject> sharedLogSubject() {
  return fieldsOfThread.subject ? fieldsOfThread.subject->shared_from_this() : nullptr;
}

LoggingFor::LoggingFor(const LogSubject* subject)
    : _before(std::exchange(fieldsOfThread.subject, subject)) {}
LoggingFor::~LoggingFor() { fieldsOfThread.subject = _before; }

LoggingBackend::LoggingBackend(std::string_view name)
    : _before(std::exchange(fieldsOfThread.backend, name)) {}
LoggingBackend::~LoggingBackend() { fieldsOfThread.backend = _before; }

LoggingReason::LoggingReason(std::string_view word, std::string_view messageID)
    : _wordBefore(std::exchange(fieldsOfThread.reason, word)),
      _messageIDBefore(std::exchange(fieldsOfThread.messageID, messageID)) {}
LoggingReason::~LoggingReason() {
  fieldsOfThread.reason = _wordBefore;
  fieldsOfThread.messageID = _messageIDBefore;
}

}  // namespace corvid
