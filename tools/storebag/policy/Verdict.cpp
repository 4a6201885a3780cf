#include "tools/storebag/policy/Verdict.h"

#include <array>
#include <map>
#include <memory>
#include <string_view>
#include <utility>

#include "backends/BackendSet.h"
#include "backends/https/HTTPSPostBackend.h"
#include "backends/upload/UploadBackend.h"
#include "base/Reading.h"
#include "config/Environment.h"
#include "protocol/Keys.h"
#include "status/DecisionWatcher.h"
#include "status/Ledger.h"
#include "tools/storebag/policy/DescribedDevice.h"

namespace corvid::storebag {

namespace {

constexpr std::array<const char*, 5> changingKeys{"_startTS", "_clientTS", "eventTime",
                                                  "_sessionID", "_eventNumber"};

template <class T>
Value orNone(const std::optional<T>& value) {
  return value ? Value(*value) : Value();
}

std::string textIn(const Dictionary& object, std::string_view key) {
  const std::string* const text = stringAt(object, key);
  return text ? *text : std::string();
}

BackendVerdict verdictOn(const CorvidBackend& backend) {
  const CorvidBackend::Standing standing = backend.standing();
  BackendVerdict verdict{.name = backend.name(),
                         .state = std::string(wordOf(standing.state)),
                         .reason = std::string(wordOf(standing.reason)),
                         .entry = backend.entry()};
  if (const auto* const posting = dynamic_cast<const HTTPSPostBackend*>(&backend)) {
    verdict.take(posting->policy(), backend.samplingThreshold());
  } else if (const auto* const upload = dynamic_cast<const UploadBackend*>(&backend)) {
    verdict.postURL = upload->uploadURL();
  }
  return verdict;
}

// What the ledger says of the event of that number at each backend, by name; the last word counts.
std::map<std::string, Dictionary> decisionsOn(std::int64_t number,
                                              const std::vector<Dictionary>& told) {
  std::map<std::string, Dictionary> decisions;
  for (const Dictionary& line : told) {
    const Array* const backends = arrayAt(line, "backends");
    if (!backends || integerAt(line, "event") != number) continue;
    for (const Value& each : *backends)
      decisions[textIn(*each.dictionary(), "name")] = *each.dictionary();
  }
  return decisions;
}

// A session that has just started, and the account of what its backends do with events.
class DescribedSession {
 public:
  DescribedSession(DescribedDevice& device, BackendTable backends)
      : _device(device),
        _ledger(Ledger::create(device.platform().clock())),
        _backends(std::move(backends)) {
    _ledger->watch(_watcher);
    for (const auto& [name, backend] : _backends) {
      backend->setAccount(std::make_shared<LedgerAccount>(_ledger, number, name));
      backend->setCombinedSessionIDString(std::string());
      backend->updateState();
    }
  }

  std::vector<BackendVerdict> backends() const {
    std::vector<BackendVerdict> verdicts;
    for (const auto& [name, backend] : _backends) verdicts.push_back(verdictOn(*backend));
    return verdicts;
  }

  std::vector<EventVerdict> send(const SentEvent& event) {
    // The session's own start message comes first: it counts towards thresholds.
    offer({.payload = Dictionary()});
    std::map<std::string, std::string> addresses = offer(event);
    constexpr std::int64_t eventNumber = 2;
    const auto decided = decisionsOn(eventNumber, _watcher->take());
    flushHeld(decided, addresses);
    const auto flushed = decisionsOn(eventNumber, _watcher->take());

    std::vector<EventVerdict> verdicts;
    for (const auto& [name, decision] : decided) {
      EventVerdict verdict{.name = name,
                           .outcome = textIn(decision, "outcome"),
                           .reason = textIn(decision, "reason")};
      if (verdict.outcome != wordOf(Outcome::dropped)) {
        if (const auto found = addresses.find(name); found != addresses.end())
          verdict.address = found->second;
        const auto later = flushed.find(name);
        verdict.record = lastingOf((later == flushed.end() ? decision : later->second));
      }
      verdicts.push_back(std::move(verdict));
    }
    return verdicts;
  }

 private:
  static constexpr std::uint64_t number = 1;

  // Where each backend posted to last, by name.
  std::map<std::string, std::string> offer(const SentEvent& event) {
    const auto offer = _ledger->offer({number, event.category, event.type, event.flag});
    std::map<std::string, std::string> addresses;
    for (const auto& [name, backend] : _backends)
      noteAddress(name, addresses, [&, &backend = backend] {
        backend->sendMessage(pointerTo(event.payload), _device.platform().clock().now(),
                             event.category, event.type, MessageFlag{event.flag}, offer.mark());
      });
    return addresses;
  }

  // Lets what is held go, as far as anything lets it, so that it takes the form in which it leaves.
  void flushHeld(const std::map<std::string, Dictionary>& decided,
                 std::map<std::string, std::string>& addresses) {
    for (const auto& [name, backend] : _backends) {
      const auto decision = decided.find(name);
      if (decision == decided.end() || textIn(decision->second, "outcome") != wordOf(Outcome::held))
        continue;
      if (backend->state() == BackendState::held) backend->setState(BackendState::sending);
      noteAddress(name, addresses,
                  [&backend = backend] { backend->flushMessagesWithCompletion(nullptr); });
    }
    _device.http().abandon();
  }

  template <class Work>
  void noteAddress(const std::string& name, std::map<std::string, std::string>& addresses,
                   Work work) {
    const std::size_t before = _device.http().urls().size();
    work();
    if (_device.http().urls().size() > before) addresses[name] = _device.http().urls().back();
  }

  static std::optional<Dictionary> lastingOf(const Dictionary& decision) {
    const Dictionary* const record = dictionaryAt(decision, "record");
    if (!record) return std::nullopt;
    Dictionary lasting = *record;
    for (const char* const key : changingKeys) lasting.erase(key);
    return lasting;
  }

  DescribedDevice& _device;
  const std::shared_ptr<Ledger> _ledger;
  const std::shared_ptr<DecisionWatcher> _watcher =
      std::make_shared<DecisionWatcher>(DecisionWatcher::Wishes{.records = true}, nullptr);
  const BackendTable _backends;
};

Value listOf(const auto& verdicts) {
  Array list;
  for (const auto& verdict : verdicts) list.push_back(toDictionary(verdict));
  return list;
}

}  // namespace

void BackendVerdict::take(const ClientPolicy& policy, std::optional<double> threshold) {
  postURL = policy.postURL;
  realtimePostURL = policy.realtimePostURL;
  eventThreshold = policy.eventThreshold;
  samplingThreshold = threshold;
  batch = policy.batchEvents;
}

Verdict explain(const Dictionary& storebag, std::int32_t clientType, const Facts& facts,
                const std::optional<SentEvent>& event) {
  DescribedDevice device(facts);
  Verdict verdict{.environment = environmentNameForType(currentEnvironment())};
  if (event) verdict.event.emplace();
  if (!storebagNameForClientType(clientType)) {
    verdict.reason = Reason::unknownClientType;
    return verdict;
  }
  FetchedStorebag fetched;
  chooseSection(storebag, clientType, fetched);
  if (fetched.fault) {
    verdict.reason = fetched.fault->reason;
    return verdict;
  }

  Dictionary sessionInfo = facts.sessionInfo.value_or(Dictionary());
  sessionInfo.set(std::string(kCorvidSessionInfoClientType), clientType);
  const auto userInfo =
      facts.userInfo ? std::make_shared<const Dictionary>(*facts.userInfo) : nullptr;
  auto backends =
      createBackends(pointerTo(fetched.storebag), &sessionInfo, userInfo, std::string());
  if (!backends || backends->empty()) {
    verdict.reason = Reason::noBackendMade;
    return verdict;
  }
  DescribedSession session(device, *std::move(backends));
  verdict.backends = session.backends();
  if (event) verdict.event = session.send(*event);
  return verdict;
}

Dictionary toDictionary(const BackendVerdict& backend) {
  return {
      {"name", backend.name},
      {"state", backend.state},
      {"reason", backend.reason},
      {"detail", Value()},  // of a session in a chain
      {"entry", backend.entry ? Value(static_cast<std::int64_t>(*backend.entry)) : Value()},
      {"postURL", orNone(backend.postURL)},
      {"realtimePostURL", orNone(backend.realtimePostURL)},
      {"eventThreshold", orNone(backend.eventThreshold)},
      {"samplingThreshold", orNone(backend.samplingThreshold)},
      {"batch", orNone(backend.batch)},
  };
}

Dictionary toDictionary(const EventVerdict& event) {
  return {
      {"name", event.name},
      {"outcome", event.outcome},
      {"reason", event.reason},
      {"address", orNone(event.address)},
      {"record", orNone(event.record)},
  };
}

Dictionary toDictionary(const Verdict& verdict) {
  Value event;
  if (verdict.event) {
    Dictionary told{{"backends", listOf(*verdict.event)}};
    if (verdict.reason) {
      told.set("outcome", wordOf(Outcome::dropped));
      told.set("reason", wordOf(*verdict.reason));
    }
    event = std::move(told);
  }
  return {
      {"environment", orNone(verdict.environment)},
      {"reason", verdict.reason ? Value(wordOf(*verdict.reason)) : Value()},
      {"backends", listOf(verdict.backends)},
      {"event", std::move(event)},
  };
}

}  // namespace corvid::storebag
