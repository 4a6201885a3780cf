// Construction, teardown and properties.
#include "session/CorviddSession.h"

#include <fmt/format.h>

#include <utility>

#include "backends/ExchangeGate.h"
#include "base/Log.h"
#include "platform/Platform.h"
#include "platform/data/Crypto.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// Whatever backends a client gets, and however often, their exchanges pass through one gate.
BackendSetCreator sharingOneGate(BackendSetCreator creator) {
  return [creator = std::move(creator), gate = std::make_shared<ExchangeGate>()](
             const Dictionary* section, const Dictionary* sessionInfo, const Dictionary* userInfo,
             const char* udid) {
    auto table = creator(section, sessionInfo, userInfo, udid);
    if (table)
      for (const auto& [key, backend] : *table) backend->setExchangeGate(gate);
    return table;
  };
}

}  // namespace

std::shared_ptr<CorviddSession> CorviddSession::initWithSessionDelegate(
    std::shared_ptr<CorviddSessionDelegate> delegate, std::shared_ptr<Connection> connection,
    BackendSetCreator creator) {
  return std::shared_ptr<CorviddSession>(
      new CorviddSession(std::move(delegate), std::move(connection), std::move(creator)));
}

CorviddSession::CorviddSession(std::shared_ptr<CorviddSessionDelegate> delegate,
                               std::shared_ptr<Connection> connection, BackendSetCreator creator)
    : _sessionDelegate(std::move(delegate)),
      _connection(std::move(connection)),
      _createBackends(sharingOneGate(std::move(creator))) {
  logDebug("initWithSessionDelegate: CorviddSession initWithSessionDelegate:{}",
           _sessionDelegate->description());
  uniqueDeviceID(_deviceid);
  const UUIDBytes uuid = Platform::current().random().uuid();
  _sessionIDString = base64Encode({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
  logDebug("initWithSessionDelegate: Initialized session with UUID {}", _sessionIDString);
}

CorviddSession::~CorviddSession() {
  logDebug("dealloc: CorviddSession dealloc: {}", sessionID());
  Dictionary payload;
  if (const auto version = storebagVersion()) payload.set("StorebagVersion", *version);
  internalSendMessage(payload, sessionCategory, sessionEnd);
  internalFlushMessagesWithCompletion({});
  shutdownSessionAggregation();
  if (const auto table = backends())
    for (const auto& [key, backend] : *table) backend->cleanup();
}

std::string CorviddSession::sessionIDString() const {
  const MutexLock lock(_lock);
  return _sessionIDString;
}

void CorviddSession::setSessionIDString(std::string sessionIDString) {
  const MutexLock lock(_lock);
  _sessionIDString = std::move(sessionIDString);
}

std::optional<std::string> CorviddSession::storebagVersion() const {
  const MutexLock lock(_lock);
  return _storebagVersion;
}

void CorviddSession::setStorebagVersion(std::optional<std::string> version) {
  const MutexLock lock(_lock);
  _storebagVersion = std::move(version);
}

std::optional<Dictionary> CorviddSession::userInfo() const {
  const auto shared = sharedUserInfo();
  return shared ? std::optional(*shared) : std::nullopt;
}

Dictionary CorviddSession::sessionInfo() const {
  const auto shared = sharedSessionInfo();
  return shared ? *shared : Dictionary();
}

std::shared_ptr<const Dictionary> CorviddSession::sharedUserInfo() const {
  const MutexLock lock(_lock);
  return _userInfo;
}

std::shared_ptr<const Dictionary> CorviddSession::sharedSessionInfo() const {
  const MutexLock lock(_lock);
  return _sessionInfo;
}

std::shared_ptr<const BackendTable> CorviddSession::backends() const {
  const MutexLock lock(_lock);
  return _backends;
}

std::shared_ptr<const BackendTable> CorviddSession::exchangeBackends(
    std::shared_ptr<const BackendTable> table) {
  const MutexLock lock(_lock);
  return std::exchange(_backends, std::move(table));
}

std::string CorviddSession::description() const {
  return fmt::format("<CorviddSession: {} {}>", sessionID(), sessionIDString());
}

std::int32_t CorviddSession::getSessionHierarchy() const {
  const auto table = backends();
  for (const std::string_view key : {kCorvidBackendHTTPPost2, kCorvidBackendHTTPPost})
    if (const CorvidBackend* backend = backendNamed(key, table.get())) return backend->hierarchy();
  return 0;
}

void CorviddSession::fetchDisplayURL(Reply<std::string> reply) {
  logDebug("fetchDisplayURL: Fetching display URL for session {}", sessionID());
  const auto table = backends();
  for (const std::string_view key :
       {kCorvidBackendHTTPPost, kCorvidBackendHTTPPost2, kCorvidBackendDashboard}) {
    const CorvidBackend* backend = backendNamed(key, table.get());
    if (!backend) continue;
    if (auto displayURL = backend->displayURL()) {
      reply(*std::move(displayURL));
      return;
    }
  }
  reply("URL not available");
}

const CorvidBackend* CorviddSession::backendNamed(std::string_view key, const BackendTable* table) {
  if (!table) return nullptr;
  const auto found = table->find(std::string(key));
  return found == table->end() ? nullptr : found->second.get();
}

}  // namespace corvid
