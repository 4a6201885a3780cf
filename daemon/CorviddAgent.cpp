#include "daemon/CorviddAgent.h"

#include <fmt/format.h>

#include <utility>

#include "base/Log.h"
#include "platform/Platform.h"

namespace corvid {

std::shared_ptr<CorviddAgent> CorviddAgent::create(StorebagFetch fetch) {
  return std::shared_ptr<CorviddAgent>(new CorviddAgent(std::move(fetch)));
}

std::string CorviddAgent::description() const {
  return fmt::format("<CorviddAgent: {}>", fmt::ptr(this));
}

bool CorviddAgent::shouldAcceptNewConnection(std::shared_ptr<Connection> connection) {
  const std::optional<Value> entitlement = connection->valueForEntitlement(requiredEntitlement);
  const bool entitled = entitlement && entitlement->boolean().value_or(false);
  const std::string peer = connection->description();
  if (!entitled) {
    logDebug(
        "listener: new IPC connection {} does not have required corvid entitlement. Closing connection...",
        peer);
    return false;
  }
  logDebug(
      "listener: Accepting new IPC connection {} as it has proper entitlement, {}({}) connections.",
      peer, _sessionCount.load(), _groupCount.load());

  auto session = CorviddSession::initWithSessionDelegate(shared_from_this(), connection);
  connection->setExportedObject(session);
  addSession(session);
  connection->setInterruptionHandler([session] {
    logDebug("listener: IPC connection to {} was interrupted", session->description());
  });
  connection->setInvalidationHandler(
      [agent = shared_from_this(), session] { agent->connectionInvalidated(session); });
  connection->resume();
  return true;
}

void CorviddAgent::addSession(std::shared_ptr<CorviddSession> session) {
  const RecursiveLock lock(_sessionListMutex);
  if (_sessionList.empty()) Platform::current().keepAlive().beginTransaction();
  _sessionList.push_back(std::move(session));
  _sessionCount = _sessionList.size();
}

// The handler's own reference outlives the call, so that nothing is destroyed under a lock.
void CorviddAgent::connectionInvalidated(const std::shared_ptr<CorviddSession>& session) {
  logDebug("listener: IPC connection to {} was invalidated", session->description());
  {
    const RecursiveLock lock(_sessionListMutex);
    if (std::erase(_sessionList, session) > 0 && _sessionList.empty())
      Platform::current().keepAlive().endTransaction();
    _sessionCount = _sessionList.size();
  }
  const RecursiveLock lock(_mutex);
  removeFromGroups(*session);
}

}  // namespace corvid
