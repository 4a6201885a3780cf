// A session's life, its properties, and what follows from its user info and its place in a chain.
#include "session/CorviddSession.h"

#include <fmt/format.h>

#include <exception>
#include <string_view>
#include <utility>

#include "backends/ExchangeGate.h"
#include "base/Log.h"
#include "base/Reading.h"
#include "config/DeviceInformation.h"
#include "platform/Platform.h"
#include "platform/data/Crypto.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

// Whatever backends a client gets, and however often, their exchanges pass through one gate, their
// events are its session's, and its connection hears of their states.
BackendSetCreator forSession(BackendSetCreator creator, Platform& platform,
                             const std::shared_ptr<Connection>& connection,
                             const std::shared_ptr<Ledger>& ledger, std::uint64_t session) {
  const auto gate =
      std::make_shared<ExchangeGate>(platform.clock(), platform.budgets, connection->user());
  return [creator = std::move(creator), gate, ledger, session,
          changed =
              [weak = std::weak_ptr(connection)] {
                if (const auto alive = weak.lock()) alive->statesMayHaveChanged();
              }](const Dictionary* section, const Dictionary* sessionInfo,
                 const SharedDictionary& userInfo, std::optional<std::string> udid) {
    auto table = creator(section, sessionInfo, userInfo, std::move(udid));
    if (table)
      for (const auto& [key, backend] : *table) {
        backend->setExchangeGate(gate);
        backend->setAccount(std::make_shared<LedgerAccount>(ledger, session, key));
        backend->setStandingObserver(changed);
      }
    return table;
  };
}

std::string newSessionIDString(Random& random) {
  const UUIDBytes uuid = random.uuid();
  return base64Encode({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
}

// On unless the preference says otherwise.
bool automaticTimeSet(Preferences& preferences) {
  const auto stored = preferences.value("com.halcyon.timed", "TMAutomaticTimeZoneEnabled");
  return asBoolean(pointerTo(stored)).value_or(true);
}

// A name that both lack, or that is no text in both, is the same.
bool nameChanged(std::string_view key, const Dictionary& oldInfo, const Dictionary& newInfo) {
  const std::string* oldName = stringAt(oldInfo, key);
  const std::string* newName = stringAt(newInfo, key);
  return oldName && newName ? *oldName != *newName : oldName != newName;
}

std::shared_ptr<const Dictionary> shared(std::optional<Dictionary> dictionary) {
  return dictionary ? std::make_shared<const Dictionary>(*std::move(dictionary)) : nullptr;
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
      _platform(Platform::current()),
      _ledger(_sessionDelegate->ledger()),
      _number(_sessionDelegate->nextSessionNumber()),
      _logSubject(std::make_shared<LogSubject>(_number)),
      _peer(_connection->peerProcess()),
      _createBackends(forSession(std::move(creator), _platform, _connection, _ledger, _number)),
      _user(_connection->user()),
      _meetsOtherUsers(_connection->isEntitledTo(chainsEntitlement)),
      _deviceid(uniqueDeviceID()),
      _sessionIDString(newSessionIDString(_platform.random())) {
  const LoggingFor session(_logSubject.get());
  logDebug("initWithSessionDelegate: CorviddSession initWithSessionDelegate:{}",
           _sessionDelegate->description());
  logDebug("initWithSessionDelegate: Initialized session with UUID {}", _sessionIDString);
}

CorviddSession::~CorviddSession() {
  const LoggingFor session(_logSubject.get());
  logDebug("dealloc: CorviddSession dealloc: {}", sessionID());
  // What fails here costs this session's farewell and nobody else's session.
  try {
    sayFarewell();
  } catch (const std::exception& exception) {
    logError("dealloc: CorviddSession {} ended without its farewell: {}", sessionID(),
             exception.what());
  }
}

void CorviddSession::sayFarewell() {
  Dictionary payload;
  if (const auto version = storebagVersion()) payload.set("StorebagVersion", *version);
  internalSendMessage(payload, sessionEnd);
  internalFlushMessagesWithCompletion({});
  shutdownSessionAggregation();
  if (const auto backends = this->backends())
    backends->each([](CorvidBackend& backend) { backend.cleanup(); });
}

std::optional<std::string> CorviddSession::storebagVersion() const {
  const MutexLock lock(_mutex);
  return _storebagVersion;
}

void CorviddSession::setStorebagVersion(std::optional<std::string> version) {
  const MutexLock lock(_mutex);
  _storebagVersion = std::move(version);
}

std::shared_ptr<const Dictionary> CorviddSession::userInfo() const {
  const MutexLock lock(_mutex);
  return _userInfo;
}

std::shared_ptr<const Dictionary> CorviddSession::sessionInfo() const {
  const MutexLock lock(_mutex);
  return _sessionInfo;
}

std::shared_ptr<const SessionBackends> CorviddSession::backends() const {
  const MutexLock lock(_mutex);
  return _backends;
}

std::string CorviddSession::description() const {
  return fmt::format("<CorviddSession: {} {}>", sessionID(), sessionIDString());
}

std::optional<Reason> CorviddSession::silence() const {
  const auto backends = this->backends();
  if (!backends) return _silence.load();
  return backends->empty() ? std::optional(Reason::noBackendMade) : std::nullopt;
}

StatesReport CorviddSession::statesReport() const {
  StatesReport report{.reason = silence()};
  if (const auto backends = this->backends()) report.backends = backends->report();
  return report;
}

void CorviddSession::becomeSilent(Reason reason) {
  _silence = sessionInfo() ? reason : Reason::noSessionInfo;
  _connection->statesMayHaveChanged();
  // A session that has backends keeps them.
  if (const auto silence = this->silence()) _ledger->countSilence(*silence);
}

void CorviddSession::nameInLog() {
  const auto user = userInfo();
  const auto info = sessionInfo();
  if (const std::string* name = user ? stringAt(*user, kCorvidUserInfoClientName) : nullptr)
    _logSubject->setClient(*name);
  else if (const auto type = info ? integerAt(*info, kCorvidSessionInfoClientType) : std::nullopt)
    _logSubject->setClient(std::to_string(*type));
}

bool CorviddSession::mayMeet(const CorviddSession& other) const {
  return _user == other._user || (_meetsOtherUsers && other._meetsOtherUsers);
}

std::int32_t CorviddSession::getSessionHierarchy() const {
  const auto backends = this->backends();
  return backends ? backends->hierarchy() : 0;
}

void CorviddSession::setSessionInfo(Dictionary sessionInfo, std::optional<Dictionary> userInfo,
                                    Array frameworksToCheck, bool hasAggregationBlock) {
  setSessionID(
      static_cast<std::uint32_t>(integerAt(sessionInfo, kCorvidSessionInfoSessionID).value_or(0)));
  logDebug("setSessionInfo: Configuring session {}", sessionID());
  if (userInfo && !booleanAt(sessionInfo, kCorvidSessionInfoRequireUserInfo))
    logWarning("setSessionInfo: Configure session: user info provided without requiring it");

  auto newSessionInfo = std::make_shared<const Dictionary>(std::move(sessionInfo));
  auto newUserInfo = shared(std::move(userInfo));
  {
    const MutexLock lock(_mutex);
    _sessionInfo = std::move(newSessionInfo);
    _frameworks = std::move(frameworksToCheck);
    _userInfo = std::move(newUserInfo);
  }
  nameInLog();
  setHasAggregator(hasAggregationBlock);
  Reason before = Reason::noSessionInfo;
  _silence.compare_exchange_strong(before, Reason::notConfigured);
  _connection->statesMayHaveChanged();
}

void CorviddSession::startConfigWithCompletionHandler(StatesReply reply) {
  logDebug("startConfigWithCompletionHandler: Starting configuration for session {}", sessionID());
  const auto found = _sessionDelegate->storebagForSession(*this);
  if (!found || !found.value()) becomeSilent(_sessionDelegate->whyNoStorebagForSession(*this));
  if (!found) return;  // the client gets no answer
  const std::optional<Dictionary>& storebag = found.value();
  if (!storebag) {
    reply(std::nullopt);
    return;
  }
  setStorebagVersion(_sessionDelegate->storebagVersionForSession(*this));
  auto backends = createBackendsWithStorebag(*storebag);
  {
    // Nobody may meet the new backends before they know their level.
    CorviddSessionDelegate& agent = *_sessionDelegate;
    const RecursiveLock agentLock(agent.mutex());
    {
      const MutexLock lock(_mutex);
      _backends.swap(backends);
    }
    updateSessionWithDefaultSessionInfo();
  }
  _connection->statesMayHaveChanged();
  if (silence()) becomeSilent(Reason::noBackendMade);
  // A second configuration replaces the backends of the first, which are cleaned up unflushed.
  if (backends) backends->each([](CorvidBackend& backend) { backend.cleanup(); });
  backends = nullptr;
  sendStartMessage();
  reply(fetchReportingStates());
}

std::shared_ptr<const SessionBackends> CorviddSession::createBackendsWithStorebag(
    const Dictionary& storebag) const {
  logDebug("createBackendsWithStorebag: Creating backends for session {}", sessionID());
  auto created = _createBackends(&storebag, sessionInfo().get(), userInfo(), _deviceid);
  if (!created) return nullptr;
  auto backends = std::make_shared<const SessionBackends>(*std::move(created));
  backends->each(
      [&](CorvidBackend& backend) { backend.setCombinedSessionIDString(sessionIDString()); });
  return backends;
}

void CorviddSession::sendStartMessage() {
  Dictionary payload;
  if (isInternalBuild()) {
    payload.set("SerialNum", serialNumber().value_or("Unknown"));
    payload.set("Version", productVersion().value_or("Unknown"));
    payload.set("Build", buildVersion().value_or("Unknown"));
    payload.set("Hardware", hardwareModel().value_or("Unknown"));
    payload.set("Product", deviceName().value_or("Unknown"));
    payload.set("ReportVers", clientLibraryVersion());
  }
  if (auto country = _platform.locale().countryCode()) payload.set("Locale", *std::move(country));
  payload.set("AutomaticTimeSet", automaticTimeSet(_platform.preferences()));
  internalSendMessage(payload, sessionStart);
}

void CorviddSession::fetchStatesWithUserInfo(std::optional<Dictionary> userInfo,
                                             StatesReply reply) {
  logDebug("fetchStatesWithUserInfo: Fetching states for session {}", sessionID());
  receivedUserInfo(shared(std::move(userInfo)));
  reply(fetchReportingStates());
}

std::optional<Array> CorviddSession::fetchReportingStates() const {
  const auto backends = this->backends();
  return backends ? std::optional(backends->reportingStates()) : std::nullopt;
}

void CorviddSession::fetchDisplayURL(Reply<std::string> reply) {
  logDebug("fetchDisplayURL: Fetching display URL for session {}", sessionID());
  const auto backends = this->backends();
  reply((backends ? backends->displayURL() : std::nullopt).value_or("URL not available"));
}

void CorviddSession::receivedUserInfo(std::shared_ptr<const Dictionary> userInfo) {
  bool changed = true;
  if (const auto oldInfo = this->userInfo()) {
    const auto info = sessionInfo();
    if (!userInfo && info && booleanAt(*info, kCorvidSessionInfoRequireUserInfo)) return;
    changed = !userInfo || nameChanged(kCorvidUserInfoClientName, *oldInfo, *userInfo) ||
              nameChanged(kCorvidUserInfoServiceName, *oldInfo, *userInfo);
  } else if (!userInfo) {
    return;
  }
  {
    const MutexLock lock(_mutex);
    _userInfo = userInfo;
  }
  nameInLog();
  updateUserInfoForBackends();
  if (!changed) return;
  logDebug("receivedUserInfo: Received new user info for session {}", sessionID());
  updateSessionWithDefaultSessionInfo();
}

void CorviddSession::updateUserInfoForBackends() {
  const auto info = userInfo();
  if (const auto backends = this->backends())
    backends->each([&](CorvidBackend& backend) { backend.setUserInfoDict(info); });
}

void CorviddSession::updateReportingStates() {
  if (const auto backends = this->backends())
    backends->each([](CorvidBackend& backend) { backend.updateState(); });
}

void CorviddSession::computeStatesLater() const {
  _connection->perform([weak = weak_from_this()] {
    const auto self = std::const_pointer_cast<CorviddSession>(weak.lock());
    if (self && self->backends()) self->updateSessionWithDefaultSessionInfo();
  });
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

void CorviddSession::updateCombinedSessionID(
    const std::optional<std::string>& parentSessionIDString) {
  if (!parentSessionIDString) return;
  const LoggingFor session(_logSubject.get());
  const std::string combinedID = fmt::format("{}.{}", *parentSessionIDString, sessionIDString());
  logDebug("updateCombinedSessionID: Updating combined session ID '{}' for session {} backends",
           combinedID, sessionID());
  if (const auto backends = this->backends())
    backends->each([&](CorvidBackend& backend) { backend.setCorrelatedSessionID(combinedID); });
}

void CorviddSession::syncReportingStates(const CorviddSession* parent) {
  const LoggingFor session(_logSubject.get());
  _parentNumber = parent ? parent->number() : 0;
  const auto backends = this->backends();
  if (!backends) return;
  if (parent)
    backends->follow(parent->backends().get(), parent->number());
  else
    backends->missParent(sessionID());
}

}  // namespace corvid
