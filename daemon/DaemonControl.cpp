#include "daemon/DaemonControl.h"

#include <chrono>
#include <utility>

#include "base/Thread.h"
#include "config/DeviceFacts.h"
#include "config/Environment.h"
#include "daemon/Metrics.h"
#include "daemon/StatusReport.h"
#include "platform/Platform.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

std::string_view wordOf(LogLevel level) {
  switch (level) {
    case LogLevel::error: return "error";
    case LogLevel::warning: return "warning";
    case LogLevel::info: return "info";
    case LogLevel::debug: return "debug";
  }
  return "info";
}

// The nearest one that lines have.
LogLevel levelOf(int syslogLevel) {
  if (syslogLevel <= static_cast<int>(LogLevel::error)) return LogLevel::error;
  if (syslogLevel == static_cast<int>(LogLevel::warning)) return LogLevel::warning;
  return syslogLevel >= static_cast<int>(LogLevel::debug) ? LogLevel::debug : LogLevel::info;
}

std::string arrayOf(const std::vector<std::string>& objects) {
  std::string text = "[";
  for (const std::string& object : objects) {
    if (text.size() > 1) text += ',';
    text += object;
  }
  return text + "]";
}

class Watch final : public ControlWatch {
 public:
  explicit Watch(std::shared_ptr<DecisionWatcher> watcher) : _watcher(std::move(watcher)) {}

  std::vector<std::string> take(std::size_t mostBytes) override {
    for (const Dictionary& decision : _watcher->take()) _waiting.push_back(jsonOf(decision));
    std::size_t bytes = 0;
    std::size_t count = 0;
    while (count < _waiting.size() && (count == 0 || bytes + _waiting[count].size() <= mostBytes))
      bytes += _waiting[count++].size();
    const auto end = _waiting.begin() + static_cast<std::ptrdiff_t>(count);
    std::vector<std::string> lines(std::make_move_iterator(_waiting.begin()),
                                   std::make_move_iterator(end));
    _waiting.erase(_waiting.begin(), end);
    return lines;
  }

 private:
  const std::shared_ptr<DecisionWatcher> _watcher;
  std::vector<std::string> _waiting;  // taken, and not fetched yet
};

}  // namespace

TemporaryLogLevel::~TemporaryLogLevel() { endLast(); }

void TemporaryLogLevel::endLast() {
  {
    const MutexLock lock(_mutex);
    _ends = true;
  }
  _ended.notify_all();
  if (_thread.joinable()) _thread.join();
}

void TemporaryLogLevel::set(LogLevel level, std::uint32_t seconds) {
  const MutexLock callLock(_callMutex);
  endLast();
  if (const auto before = std::exchange(_before, std::nullopt)) setLogLevel(*before);
  const LogLevel before = logLevel();
  setLogLevel(level);
  if (seconds == 0) return;
  _before = before;
  {
    const MutexLock lock(_mutex);
    _ends = false;
  }
  _thread = startThread("corvid-loglevel", [this, before, seconds] {
    MutexLock lock(_mutex);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const auto ends = [this]() NO_THREAD_SAFETY_ANALYSIS { return _ends; };
    if (!_ended.wait_until(_mutex, end, ends)) setLogLevel(before);
  });
}

DaemonControl::DaemonControl(Platform& platform, std::shared_ptr<CorviddAgent> agent, Facts facts)
    : _platform(platform),
      _agent(std::move(agent)),
      _facts(std::move(facts)),
      _start(platform.clock().steadyNow()) {}

std::string DaemonControl::status() {
  Clock& clock = _platform.clock();
  const Clock::TimePoint now = clock.steadyNow();
  const Ledger::Totals totals = _agent->ledger()->totals();
  Array storebags;
  for (const auto& [name, standing] : _agent->storebags().all())
    storebags.push_back(storebagStatus(name, standing, clock.now().asDouble(),
                                       StorebagCache::secondsBetweenAttempts));
  Dictionary refused;
  for (const Reason reason :
       {Reason::notEntitled, Reason::tooManyConnections, Reason::controlNotEntitled})
    refused.set(
        std::string(corvid::wordOf(reason)),
        static_cast<std::int64_t>(totals.refusedConnections[static_cast<std::size_t>(reason)]));
  return jsonOf({
      {"version", _facts.version},
      {"pid", _facts.process},
      {"uptimeSeconds", std::chrono::duration<double>(now - _start).count()},
      {"sandbox", _facts.isSandboxed ? "enforced" : "off"},
      {"logLevel", wordOf(logLevel())},
      {"device", deviceFacts()},
      {"storebags", std::move(storebags)},
      {"sessions", static_cast<std::int64_t>(_agent->sessionCount())},
      {"ledger", totals.balance.toDictionary()},
      {"hosts", hostStatus(totals.hosts, _platform.http().loads(), now)},
      {"connections", Dictionary{{"refused", std::move(refused)}}},
  });
}

std::string DaemonControl::sessions(SessionNumber session) {
  std::vector<std::string> objects;
  std::vector<Dictionary> found;
  _agent->eachSession([&](const CorviddSession& each) {
    if (!session || each.number() == *session) found.push_back(sessionStatus(each));
  });
  objects.reserve(found.size());
  for (const Dictionary& each : found) objects.push_back(jsonOf(each));
  return arrayOf(objects);
}

std::vector<std::string> DaemonControl::explain(SessionNumber session, std::size_t last) {
  std::vector<std::string> lines;
  for (const Dictionary& decision : _agent->ledger()->latest(last, session))
    lines.push_back(jsonOf(decision));
  return lines;
}

std::unique_ptr<ControlWatch> DaemonControl::watch(SessionNumber session, bool payload,
                                                   std::function<void()> wake) {
  const auto watcher = std::make_shared<DecisionWatcher>(
      DecisionWatcher::Wishes{.session = session, .records = payload}, std::move(wake));
  _agent->ledger()->watch(watcher);
  return std::make_unique<Watch>(watcher);
}

std::string DaemonControl::metrics() {
  return metricsText(_agent->ledger()->totals(), _agent->sessionCount());
}

std::optional<std::string> DaemonControl::storebag(const std::string& name) {
  const StorebagStanding standing = _agent->storebags().of(name);
  if (!standing.content) return std::nullopt;
  return writeXMLPropertyList(*standing.content);
}

std::vector<std::string> DaemonControl::refresh(std::optional<std::int32_t> clientType,
                                                bool states) {
  std::vector<std::string> touched;
  if (clientType) {
    if (const auto name = storebagNameForClientType(*clientType)) touched.push_back(*name);
  } else {
    for (const auto& [name, standing] : _agent->storebags().all()) touched.push_back(name);
  }
  for (const std::string& name : touched) _agent->storebags().wishRefresh(name);
  if (!states) return touched;
  _agent->eachSession([&](const CorviddSession& session) {
    touched.push_back(fmt::format("session {}", session.number()));
    session.computeStatesLater();
  });
  return touched;
}

void DaemonControl::setLogLevel(int level, std::uint32_t seconds) {
  _logLevel.set(levelOf(level), seconds);
}

void DaemonControl::refused(Refusal refusal) {
  _agent->ledger()->countRefusedConnection(
      refusal == Refusal::notEntitled ? Reason::controlNotEntitled : Reason::tooManyConnections);
}

}  // namespace corvid
