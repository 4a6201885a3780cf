#include <fmt/format.h>

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/storebag/PolicyCommands.h"
#include "tools/storebag/Source.h"
#include "tools/storebag/policy/Changes.h"
#include "tools/storebag/policy/Outcomes.h"

namespace corvid::storebag {

namespace {

constexpr const char* typeKey = "clientType";

DescribedClient clientFrom(const std::string& word) {
  Dictionary object = objectOfWord(word, "--facts");
  const Value* const type = object.find(typeKey);
  if (!type) throw tools::InputError("--facts needs a \"clientType\" here");
  DescribedClient client{.type = clientTypeFrom(*type)};
  object.erase(typeKey);
  client.facts = factsFrom(object);
  return client;
}

Dictionary toDictionary(const DescribedClient& client) {
  Dictionary object{{typeKey, client.type}};
  object.addEntriesFrom(storebag::toDictionary(client.facts));
  return object;
}

std::string textOf(const Dictionary& object) {
  if (auto text = writeJSON(object)) return *std::move(text);
  const Value json = tools::jsonFromValue(object);
  if (auto text = writeJSON(*json.dictionary())) return *std::move(text);
  throw CommandError("a storebag holds a text or a number that JSON has no form for");
}

// One line of JSON; a text that is alone as it is.
std::string shown(const Value& value) {
  if (value.isNull()) return "nothing";
  if (const std::string* const text = value.string()) return *text;
  const std::string object = textOf({{"", value}});
  return object.substr(4, object.size() - 5);
}

// "held (sampledOut)"; where that is the same on both sides, all.
std::string shownOutcome(const Value& outcome, const Value& other) {
  const Dictionary* const object = outcome.dictionary();
  if (!object) return "no backend";
  const auto of = [](const Dictionary* in, const char* key) {
    const std::string* const text = in ? stringAt(*in, key) : nullptr;
    return text ? *text : std::string();
  };
  const std::string state = of(object, "state");
  const std::string reason = of(object, "reason");
  if (state.empty()) return fmt::format("no backend ({})", reason);
  const bool isTold =
      state != of(other.dictionary(), "state") || reason != of(other.dictionary(), "reason");
  if (isTold || !other.dictionary()) return fmt::format("{} ({})", state, reason);
  Dictionary different;
  for (const auto& [key, value] : *object) {
    const Value* const before = other.dictionary()->find(key);
    if (key != "entry" && (!before || *before != value)) different.set(key, value);
  }
  return textOf(different);
}

void print(const std::vector<Change>& changes, const std::vector<OutcomeChange>& outcomes) {
  for (const auto& [path, old, now] : changes)
    fmt::print("{}: {} -> {}\n", path, shown(old), shown(now));
  for (const auto& [client, backend, old, now] : outcomes)
    fmt::print("{} {}: {} -> {}\n", textOf(toDictionary(client)), backend, shownOutcome(old, now),
               shownOutcome(now, old));
  fmt::print("{} values changed, {} outcomes\n", changes.size(), outcomes.size());
}

void printJSON(const std::vector<Change>& changes, const std::vector<OutcomeChange>& outcomes) {
  Array changed;
  for (const auto& [path, old, now] : changes)
    changed.push_back(Dictionary{{"path", path}, {"old", old}, {"new", now}});
  Array others;
  for (const auto& [client, backend, old, now] : outcomes)
    others.push_back(Dictionary{
        {"facts", toDictionary(client)}, {"backend", backend}, {"old", old}, {"new", now}});
  fmt::print(
      "{}\n",
      indentedJSON(textOf({{"changes", std::move(changed)}, {"outcomes", std::move(others)}})));
}

int compare(const DiffOptions& options) {
  std::vector<DescribedClient> given;
  for (const std::string& word : options.facts) given.push_back(clientFrom(word));
  const Dictionary old = contentOfFile(options.oldSource).storebag;
  const Dictionary now = contentOfFile(options.newSource).storebag;
  const std::vector<Change> changes = changesBetween(old, now);
  const std::vector<OutcomeChange> outcomes =
      changes.empty() ? std::vector<OutcomeChange>() : outcomeChanges(old, now, given);
  if (options.asJSON)
    printJSON(changes, outcomes);
  else
    print(changes, outcomes);
  return changes.empty() ? 0 : 1;
}

}  // namespace

int runDiffCommand(const DiffOptions& options) {
  constexpr int trouble = 2;  // 1 says that something changes
  try {
    return compare(options);
  } catch (const CommandError& error) {
    fmt::print(stderr, "corvid-storebag: {}\n", error.what());
    return trouble;
  }
}

}  // namespace corvid::storebag
