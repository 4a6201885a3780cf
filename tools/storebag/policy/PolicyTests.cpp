#include "tools/storebag/policy/PolicyTests.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "protocol/Keys.h"
#include "protocol/Reason.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/storebag/policy/KnownKeys.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid::storebag {

namespace {

using tools::Arguments;
using tools::InputError;

constexpr std::array<std::string_view, 6> testKeys{"name",  "clientType", "facts",
                                                   "event", "reason",     "expect"};
constexpr std::array<std::string_view, 6> backendNames{
    kCorvidBackendHTTPPost,     kCorvidBackendHTTPPost2, kCorvidBackendDashboard,
    kCorvidBackendUploadServer, kCorvidBackendMetrix,    kCorvidBackendWattbook};
constexpr std::array<std::string_view, 11> expectedKeys{"state",
                                                        "reason",
                                                        "entry",
                                                        "postURL",
                                                        "realtimePostURL",
                                                        "eventThreshold",
                                                        "samplingThreshold",
                                                        "batch",
                                                        "outcome",
                                                        "address",
                                                        "record"};
constexpr std::array<std::string_view, 3> eventKeys{"outcome", "address", "record"};
constexpr std::array<std::string_view, 4> states{"waiting", "disabled", "sending", "held"};
constexpr std::array<std::string_view, 4> outcomeWords{"delivered", "dropped", "held", "underWay"};

bool isOneOf(std::string_view word, std::span<const std::string_view> words) {
  return std::ranges::find(words, word) != words.end();
}

void expectWord(const Dictionary& object, std::string_view key,
                std::span<const std::string_view> words) {
  const auto word = Arguments(object).text(key);
  if (word && !isOneOf(*word, words)) throw InputError(unknownWord(key, *word, words));
}

void expectReason(const Dictionary& object) {
  std::array<std::string_view, reasonCount> words;
  std::ranges::transform(reasonTexts, words.begin(), &ReasonText::word);
  expectWord(object, "reason", words);
}

Expectation expectationFrom(const std::string& backend, const Value& value, bool hasEvent) {
  if (!isOneOf(backend, backendNames))
    throw InputError(unknownWord("backend", backend, backendNames));
  if (value.isNull()) return {backend};
  const Dictionary* const wanted = value.dictionary();
  if (!wanted)
    throw InputError(fmt::format("\"{}\" must be an object, or null for no backend", backend));
  expectKnownKeys(*wanted, "expectation", expectedKeys);
  expectWord(*wanted, "state", states);
  expectWord(*wanted, "outcome", outcomeWords);
  expectReason(*wanted);
  if (wanted->empty()) throw InputError(fmt::format("\"{}\" expects nothing", backend));
  for (const std::string_view key : eventKeys)
    if (wanted->contains(key) && !hasEvent)
      throw InputError(fmt::format("\"{}\" is of an event, and the test has none", key));
  if (const Value* const record = wanted->find("record"); record && !record->isNull())
    Arguments(*wanted).dictionary("record");
  return {backend, *wanted};
}

PolicyTest testFrom(const Dictionary& object) {
  expectKnownKeys(object, "key of a test", testKeys);
  const Arguments arguments(object);
  PolicyTest test{.name = arguments.requiredText("name")};
  const Value* const type = object.find("clientType");
  if (!type) throw InputError("it needs a \"clientType\"");
  test.clientType = clientTypeFrom(*type);
  if (const auto facts = arguments.dictionary("facts")) test.facts = factsFrom(*facts);
  if (const auto event = arguments.dictionary("event")) test.event = eventFrom(*event);
  expectReason(object);
  test.reason = arguments.text("reason");
  if (const auto expected = arguments.dictionary("expect"))
    for (const auto& [backend, wanted] : *expected)
      test.expectations.push_back(expectationFrom(backend, wanted, test.event.has_value()));
  if (test.expectations.empty() && !test.reason) throw InputError("it expects nothing");
  return test;
}

std::string shown(const Value* value) {
  if (!value || value->isNull()) return "null";
  if (const std::string* const text = value->string()) return *text;
  const Value json = tools::jsonFromValue(Dictionary{{"", *value}});
  const auto text = writeJSON(*json.dictionary());
  return text ? text->substr(4, text->size() - 5) : description(*value);
}

// Numbers are the same whatever their type.
bool isSame(const Value* wanted, const Value* is) {
  const Value none;
  if (!wanted) wanted = &none;
  if (!is) is = &none;
  const bool areNumbers = (wanted->integer() || wanted->real()) && (is->integer() || is->real());
  return areNumbers ? asNumber(wanted) == asNumber(is) : *wanted == *is;
}

// What a test may speak of at one backend; the event's reason takes the place of the backend's
// where the test expects an outcome and no state.
Dictionary standing(const BackendVerdict& backend, const EventVerdict* event,
                    const Dictionary& wanted) {
  Dictionary all = toDictionary(backend);
  if (!event) return all;
  const bool isOfEvent = wanted.contains("outcome") && !wanted.contains("state");
  for (const auto& [key, value] : toDictionary(*event))
    if (key != "reason" || isOfEvent) all.set(key, value);
  return all;
}

void compare(const Dictionary& wanted, const Dictionary& is, const std::string& path,
             std::vector<std::string>& failures) {
  for (const auto& [key, value] : wanted) {
    const Value* const found = is.find(key);
    const Dictionary* const record = key == "record" ? value.dictionary() : nullptr;
    if (record && found && found->dictionary())
      compare(*record, *found->dictionary(), path + ".record", failures);
    else if (!isSame(&value, found))
      failures.push_back(
          fmt::format("{}.{}: expected {}, is {}", path, key, shown(&value), shown(found)));
  }
}

template <class Verdicts>
auto named(const Verdicts& verdicts, const std::string& name) -> decltype(&verdicts.front()) {
  const auto found = std::ranges::find_if(verdicts, [&](const auto& v) { return v.name == name; });
  return found == verdicts.end() ? nullptr : &*found;
}

// For an attribute and for content; what XML cannot hold becomes a question mark.
std::string escaped(std::string_view text) {
  std::string result;
  for (const char c : text) switch (c) {
      case '&': result += "&amp;"; break;
      case '<': result += "&lt;"; break;
      case '>': result += "&gt;"; break;
      case '"': result += "&quot;"; break;
      case '\n': result += "&#10;"; break;
      default: result += static_cast<unsigned char>(c) < ' ' && c != '\t' ? '?' : c;
    }
  return result;
}

}  // namespace

std::vector<PolicyTest> policyTestsFrom(const Value& json) {
  const Array* const array = json.array();
  if (!array) throw InputError("tests are an array of objects");
  std::vector<PolicyTest> tests;
  for (std::size_t at = 0; at < array->size(); ++at) {
    const Dictionary* const object = (*array)[at].dictionary();
    if (!object) throw InputError(fmt::format("test {} is no object", at + 1));
    try {
      tests.push_back(testFrom(*object));
    } catch (const InputError& error) {
      const std::string* const name = stringAt(*object, "name");
      throw InputError(fmt::format("test {}{}: {}", at + 1,
                                   name ? fmt::format(" (\"{}\")", *name) : "", error.what()));
    }
  }
  return tests;
}

std::vector<std::string> failuresOf(const PolicyTest& test, const Dictionary& storebag) {
  const Verdict verdict = explain(storebag, test.clientType, test.facts, test.event);
  const std::string_view silence = verdict.reason ? wordOf(*verdict.reason) : "null";
  std::vector<std::string> failures;
  if (test.reason && *test.reason != silence)
    failures.push_back(fmt::format("reason: expected {}, is {}", *test.reason, silence));
  for (const auto& [name, wanted] : test.expectations) {
    const BackendVerdict* const backend = named(verdict.backends, name);
    if (!wanted) {
      if (backend)
        failures.push_back(fmt::format("{}: expected no backend, is {}", name, backend->state));
    } else if (!backend) {
      failures.push_back(fmt::format("{}: there is no such backend{}", name,
                                     verdict.reason ? fmt::format(" ({})", silence) : ""));
    } else {
      const EventVerdict* const event = verdict.event ? named(*verdict.event, name) : nullptr;
      compare(*wanted, standing(*backend, event, *wanted), name, failures);
    }
  }
  return failures;
}

std::string junitReport(const std::string& suite, const std::vector<TestOutcome>& outcomes) {
  const auto failed = std::ranges::count_if(
      outcomes, [](const TestOutcome& outcome) { return !outcome.failures.empty(); });
  std::string cases;
  for (const auto& [name, failures] : outcomes) {
    cases +=
        fmt::format("    <testcase classname=\"{}\" name=\"{}\"", escaped(suite), escaped(name));
    if (failures.empty()) {
      cases += "/>\n";
      continue;
    }
    const std::string text = fmt::format("{}", fmt::join(failures, "\n"));
    cases += fmt::format(">\n      <failure message=\"{}\">{}</failure>\n    </testcase>\n",
                         escaped(failures.front()), escaped(text));
  }
  return fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites>\n"
      "  <testsuite name=\"{}\" tests=\"{}\" failures=\"{}\">\n{}  </testsuite>\n</testsuites>\n",
      escaped(suite), outcomes.size(), failed, cases);
}

}  // namespace corvid::storebag
