// Configuration by the client, the backends, the start message.
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/Platform.h"
#include "protocol/Keys.h"
#include "session/CorviddSession.h"

namespace corvid {

namespace {

constexpr std::string_view timeSuite = "com.halcyon.timed";
constexpr std::string_view automaticTimeZoneKey = "TMAutomaticTimeZoneEnabled";

// On unless the preference says otherwise.
bool automaticTimeSet() {
  const auto value = Platform::current().preferences().value(timeSuite, automaticTimeZoneKey);
  return asBoolean(value ? &*value : nullptr).value_or(true);
}

std::string orUnknown(std::optional<std::string> answer) {
  return std::move(answer).value_or("Unknown");
}

}  // namespace

void CorviddSession::setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                    Array frameworksToCheck, bool hasAggregationBlock) {
  setSessionID(
      static_cast<std::uint32_t>(integerAt(sessionInfo, kCorvidSessionInfoSessionID).value_or(0)));
  logDebug("setSessionInfo: Configuring session {}", sessionID());
  if (userInfo && !booleanAt(sessionInfo, kCorvidSessionInfoRequireUserInfo))
    logWarning("setSessionInfo: Configure session: user info provided without requiring it");

  auto newSessionInfo = std::make_shared<const Dictionary>(std::move(sessionInfo));
  auto newUserInfo = userInfo ? std::make_shared<const Dictionary>(*std::move(userInfo)) : nullptr;
  {
    const MutexLock lock(_lock);
    _sessionInfo = std::move(newSessionInfo);
    _frameworks = std::move(frameworksToCheck);
    _userInfo = std::move(newUserInfo);
  }
  setHasAggregator(hasAggregationBlock);
}

void CorviddSession::startConfigWithCompletionHandler(StatesReply reply) {
  logDebug("startConfigWithCompletionHandler: Starting configuration for session {}", sessionID());
  const auto found = _sessionDelegate->storebagForSession(*this);
  if (!found) return;  // the client gets no answer
  const std::optional<Dictionary>& storebag = found.value();
  if (!storebag) {
    reply(std::nullopt);
    return;
  }
  setStorebagVersion(_sessionDelegate->storebagVersionForSession(*this));
  auto table = createBackendsWithStorebag(*storebag);
  {
    // Nobody may meet the new backends before they know their level.
    CorviddSessionDelegate& agent = *_sessionDelegate;
    const RecursiveLock lock(agent.mutex());
    table = exchangeBackends(std::move(table));
    updateSessionWithDefaultSessionInfo();
  }
  // A second configuration replaces the backends of the first, which are cleaned up unflushed.
  if (table)
    for (const auto& [key, backend] : *table) backend->cleanup();
  table = nullptr;
  sendStartMessage();
  reply(fetchReportingStates());
}

std::shared_ptr<const BackendTable> CorviddSession::createBackendsWithStorebag(
    const Dictionary& storebag) const {
  logDebug("createBackendsWithStorebag: Creating backends for session {}", sessionID());
  auto created =
      _createBackends(&storebag, sharedSessionInfo().get(), sharedUserInfo().get(), _deviceid);
  if (!created) return nullptr;
  for (const auto& [key, backend] : *created)
    backend->setCombinedSessionIDString(sessionIDString());
  return std::make_shared<const BackendTable>(*std::move(created));
}

// The mutex is held throughout: a session that is in its new group but still has its old level
// would be taken for another's parent.
void CorviddSession::updateSessionWithDefaultSessionInfo() {
  CorviddSessionDelegate& agent = *_sessionDelegate;
  const RecursiveLock lock(agent.mutex());
  agent.userInfoUpdatedForSession(*this);
  updateReportingStates();
  agent.updateDownstreamSessions(*this);
}

void CorviddSession::sendStartMessage() {
  Dictionary payload;
  if (isInternalBuild()) {
    payload.set("SerialNum", orUnknown(serialNumber()));
    payload.set("Version", orUnknown(productVersion()));
    payload.set("Build", orUnknown(buildVersion()));
    payload.set("Hardware", orUnknown(hardwareModel()));
    payload.set("Product", orUnknown(deviceName()));
    payload.set("ReportVers", clientLibraryVersion());
  }
  if (auto country = Platform::current().locale().countryCode())
    payload.set("Locale", *std::move(country));
  payload.set("AutomaticTimeSet", automaticTimeSet());
  internalSendMessage(payload, sessionCategory, sessionStart);
}

}  // namespace corvid
