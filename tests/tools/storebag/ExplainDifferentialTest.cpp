// What corvid-storebag says of generated storebags, devices and events is what the daemon's own
// session does with them.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "base/Sanitizer.h"
#include "config/Environment.h"
#include "daemon/StatusReport.h"
#include "platform/data/JSON.h"
#include "status/DecisionWatcher.h"
#include "tests/daemon/AgentFixture.h"
#include "tests/fakes/RecordedReply.h"
#include "tests/tools/storebag/RandomPolicies.h"
#include "tools/Gzip.h"
#include "tools/JSONValues.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid {
namespace {

using storebag::Facts;
using storebag::SentEvent;

// What both sides are given.
struct Case {
  explicit Case(unsigned seed) {
    RandomPolicies random(seed);
    storebag = random.storebag();
    clientType = random.clientType();
    facts = random.facts();
    event = random.event();
  }
  Dictionary storebag;
  std::int32_t clientType = 0;
  Facts facts;
  SentEvent event;
};

// What both sides say, in the same form.
struct Word {
  Value reason;    // of a session without backends
  Array backends;  // name, state, reason, entry
  Array events;    // name, outcome, reason, address, record
};

std::string textOf(const Word& word) {
  const auto json = [](const Value& value) {
    return indentedJSON(
        writeJSON(Dictionary{{"", tools::jsonFromValue(value)}}).value_or("no JSON"));
  };
  return json(word.reason) + json(word.backends) + json(word.events);
}

Dictionary partOf(const Dictionary& whole, const std::vector<const char*>& keys) {
  Dictionary part;
  for (const char* const key : keys) {
    const Value* const value = whole.find(key);
    part.set(key, value ? *value : Value());
  }
  return part;
}

// Without what no tool can know.
Dictionary lasting(Dictionary record) {
  for (const char* const key : {"_startTS", "_clientTS", "eventTime", "_sessionID", "_eventNumber"})
    record.erase(key);
  return record;
}

// Numbers as JSON brings them back: 1.0 is written 1.0, and read as a real.
Value throughJSON(const Value& record) {
  if (!record.dictionary()) return record;
  const Value json = tools::jsonFromValue(record);
  const auto text = writeJSON(*json.dictionary());
  return text ? parseJSON(*text).value() : record;
}

Word wordOfTool(const Case& given) {
  const storebag::Verdict verdict =
      storebag::explain(given.storebag, given.clientType, given.facts, given.event);
  const Dictionary told = toDictionary(verdict);
  Word word{*told.find("reason"), {}, {}};
  for (const Value& backend : *arrayAt(told, "backends"))
    word.backends.push_back(partOf(*backend.dictionary(), {"name", "state", "reason", "entry"}));
  const Dictionary& event = *dictionaryAt(told, "event");
  if (event.contains("outcome")) word.events.push_back(partOf(event, {"outcome", "reason"}));
  for (const Value& each : *arrayAt(event, "backends")) {
    Dictionary part =
        partOf(*each.dictionary(), {"name", "outcome", "reason", "address", "record"});
    part.set("record", throughJSON(*part.find("record")));
    word.events.push_back(std::move(part));
  }
  return word;
}

// A daemon on the device of the facts, and one client of it.
class DaemonSide final : public AgentTest {
 public:
  explicit DaemonSide(const Case& given) : _given(given) {
    describeDevice();
    agent->ledger()->watch(_watcher);
    answerFetch = [this](std::int32_t clientType) {
      FetchedStorebag fetched{.maxAge = 3600};
      if (storebagNameForClientType(clientType))
        chooseSection(_given.storebag, clientType, fetched);
      else
        fetched.fault = StorebagFault{};
      return fetched;
    };
  }

  Word word() {
    CorviddSession& session = sessionOf(*connect());
    Dictionary info = _given.facts.sessionInfo.value_or(Dictionary());
    info.set(std::string(kCorvidSessionInfoClientType), _given.clientType);
    session.setSessionInfo(std::move(info), _given.facts.userInfo, {}, false);
    session.startConfigWithCompletionHandler({});
    const Dictionary status = sessionStatus(session);
    Word word{*status.find("reason"), {}, {}};
    for (const Value& backend : *arrayAt(status, "backends"))
      word.backends.push_back(partOf(*backend.dictionary(), {"name", "state", "reason", "entry"}));
    take();
    send(session, _given.event);
    decide(word, session);
    return word;
  }

 private:
  void TestBody() override {}

  void describeDevice() {
    const Facts& facts = _given.facts;
    const auto answer = [&](const char* key, const std::optional<std::string>& text) {
      text ? platform.device->set(key, *text) : platform.device->remove(key);
    };
    answer("ProductVersion", facts.productVersion);
    answer("BuildVersion", facts.buildVersion);
    answer("ProductType", facts.hardwareType);
    answer("DeviceName", facts.productFamily);
    if (facts.isInternal) platform.device->set("ReleaseType", "Internal");
    platform.locale->country = facts.country;
    platform.locale->offset = facts.timeZoneOffset;
    platform.consent->allowed = facts.consents;
    platform.random->draw = facts.draw;
    platform.preferences->setValue(corvidSuite, "environmentType",
                                   static_cast<std::uint32_t>(facts.environment));
  }

  static void send(CorviddSession& session, const SentEvent& event) {
    Dictionary message{{std::string(kCorvidMessageParametersCategory), event.category},
                       {std::string(kCorvidMessageParametersType), event.type},
                       {std::string(kCorvidMessageParametersFlag), event.flag}};
    if (event.payload) message.set(std::string(kCorvidMessageParametersPayload), *event.payload);
    session.sendMessageWithDictionary(std::move(message), {});
  }

  std::vector<Dictionary> take() { return _watcher->take(); }

  // What became of the event; of held ones what leaves once they may.
  void decide(Word& word, CorviddSession& session) {
    const std::vector<Dictionary> told = take();
    // The start message may have been decided of again meanwhile; the event is the younger one.
    const auto decided = std::ranges::max_element(
        told, {}, [](const Dictionary& line) { return integerAt(line, "event").value_or(0); });
    if (decided == told.end()) return;
    if (decided->contains("outcome"))
      word.events.push_back(partOf(*decided, {"outcome", "reason"}));
    constexpr int lifts = 2;
    send(session, {.category = 60'000, .flag = lifts});
    session.flushMessagesWithCompletion({});
    const std::vector<Dictionary> toldLater = take();
    for (const Value& each : *arrayAt(*decided, "backends")) {
      Dictionary part = partOf(*each.dictionary(), {"name", "outcome", "reason"});
      const bool isKept = *stringAt(part, "outcome") != "dropped";
      auto [address, record] = isKept ? posted(*stringAt(part, "name")) : Posted();
      if (isKept && record.isNull()) {
        record = recordIn(*decided, part);
        for (const Dictionary& line : toldLater)
          if (line.contains("backends") && *line.find("event") == *decided->find("event"))
            record = recordIn(line, part);
      }
      part.set("address", std::move(address));
      part.set("record", std::move(record));
      word.events.push_back(std::move(part));
    }
    std::ranges::sort(word.events, {}, [](const Value& each) {
      const std::string* const name = stringAt(*each.dictionary(), "name");
      return name ? *name : std::string();
    });
  }

  // The record that a line tells of at the backend that `part` names.
  static Value recordIn(const Dictionary& line, const Dictionary& part) {
    for (const Value& each : *arrayAt(line, "backends"))
      if (*each.dictionary()->find("name") == *part.find("name"))
        if (const Dictionary* const record = dictionaryAt(*each.dictionary(), "record"))
          return throughJSON(lasting(*record));
    return {};
  }

  // Where the second event of a backend, behind the start message, was posted to, and as what.
  struct Posted {
    Value address{};
    Value record{};
  };
  Posted posted(const std::string& backend) const {
    for (const HTTPRequest& request : platform.http->requests()) {
      if (request.url.find('.' + backend + '/') == std::string::npos) continue;
      HTTPResponse headers{.headers = request.headers};
      const bool isSmaller = headers.header("Content-Encoding").has_value();
      const Value message =
          parseJSON(isSmaller ? gunzip(request.body).value() : request.body).value();
      for (const Value& each : *arrayAt(*message.dictionary(), "events"))
        if (integerAt(*each.dictionary(), "_eventNumber") == 2)
          return {request.url, lasting(*each.dictionary())};
    }
    return {};
  }

  const Case& _given;
  const std::shared_ptr<DecisionWatcher> _watcher =
      std::make_shared<DecisionWatcher>(DecisionWatcher::Wishes{.records = true}, nullptr);
};

unsigned numberFrom(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text ? static_cast<unsigned>(std::atol(text)) : otherwise;
}

void note(std::set<std::string>& seen, const Value& value, std::string_view key) {
  if (const std::string* const text = stringAt(*value.dictionary(), key)) seen.insert(*text);
}

TEST(ExplainDifferential, SaysWhatTheDaemonDoes) {
  const unsigned first = numberFrom("CORVID_POLICY_SEED", 20261122);
  const unsigned count = numberFrom("CORVID_POLICY_CASES", hasSanitizer ? 1000 : 5000);
  std::set<std::string> reasons;
  std::set<std::string> states;
  std::set<std::string> outcomes;
  for (unsigned seed = first; seed < first + count; ++seed) {
    SCOPED_TRACE(fmt::format("CORVID_POLICY_SEED={} CORVID_POLICY_CASES=1", seed));
    const Case given(seed);
    const Word tool = wordOfTool(given);
    const Word daemon = DaemonSide(given).word();
    ASSERT_EQ(textOf(tool), textOf(daemon));
    if (const std::string* const reason = daemon.reason.string()) reasons.insert(*reason);
    for (const Value& backend : daemon.backends) {
      note(reasons, backend, "reason");
      note(states, backend, "state");
    }
    for (const Value& event : daemon.events) {
      note(reasons, event, "reason");
      note(outcomes, event, "outcome");
    }
  }
  if (count < 1000) return;
  // They come to all that a single session can come to.
  EXPECT_EQ(states, (std::set<std::string>{"waiting", "disabled", "sending", "held"}));
  EXPECT_EQ(outcomes, (std::set<std::string>{"dropped", "held", "underWay"}));
  for (const Reason reason :
       {Reason::reporting, Reason::unknownClientType, Reason::noSectionForEnvironment,
        Reason::storebagMalformed, Reason::noBackendMade, Reason::waitingForUserInfo,
        Reason::noEntryMatches, Reason::noConsent, Reason::countryNotListed,
        Reason::deviceNotListed, Reason::deviceExcluded, Reason::noFilters, Reason::noThreshold,
        Reason::sampledOut, Reason::noAddress, Reason::takesNoEvents, Reason::noAdaptor,
        Reason::batchFull, Reason::unwritable})
    EXPECT_TRUE(reasons.contains(std::string(wordOf(reason)))) << wordOf(reason);
}

}  // namespace
}  // namespace corvid
