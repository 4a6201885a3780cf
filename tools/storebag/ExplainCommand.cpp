#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <string>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tools/JSONValues.h"
#include "tools/storebag/PolicyCommands.h"
#include "tools/storebag/Source.h"
#include "tools/storebag/policy/Verdict.h"

namespace corvid::storebag {

namespace {

std::string lineOf(const BackendVerdict& backend) {
  std::string line = fmt::format("{}: {} ({})", backend.name, backend.state, backend.reason);
  const auto add = [&](const char* form, const auto& value) {
    if (value) line += fmt::format(fmt::runtime(form), *value);
  };
  add(", entry {}", backend.entry);
  add(", posts to {}", backend.postURL);
  if (backend.realtimePostURL != backend.postURL) add(", realtime to {}", backend.realtimePostURL);
  add(", sampling threshold {}", backend.samplingThreshold);
  if (backend.batch.value_or(false))
    add(", batches until {} events of a category wait", backend.eventThreshold);
  return line;
}

std::string jsonOf(const Dictionary& object) {
  const Value json = tools::jsonFromValue(object);
  if (auto text = writeJSON(*json.dictionary())) return *std::move(text);
  throw CommandError("JSON has no form for a text or a number in the record");
}

void print(const Verdict& verdict) {
  fmt::print("environment {}\n", verdict.environment.value_or("none"));
  if (verdict.reason) {
    const ReasonText& text = textOf(*verdict.reason);
    fmt::print("no backends ({}): {} {}\n", text.word, text.what, text.remedy);
  }
  for (const BackendVerdict& backend : verdict.backends) {
    fmt::print("{}\n", lineOf(backend));
    const auto reason = reasonOf(backend.reason);
    if (reason && *reason != Reason::reporting) fmt::print("  {}\n", textOf(*reason).what);
  }
  if (!verdict.event) return;
  if (verdict.reason) fmt::print("event: dropped ({})\n", wordOf(*verdict.reason));
  for (const EventVerdict& event : *verdict.event) {
    fmt::print("event at {}: {} ({}){}\n", event.name, event.outcome, event.reason,
               event.address ? ", to " + *event.address : std::string());
    if (event.record) fmt::print("{}\n", indentedJSON(jsonOf(*event.record)));
  }
}

}  // namespace

int runExplainCommand(const ExplainOptions& options) {
  const std::int32_t clientType = clientTypeFrom(options.clientType);
  const Facts facts =
      options.facts.empty() ? Facts() : factsFrom(objectOfWord(options.facts, "--facts"));
  std::optional<SentEvent> event;
  if (!options.event.empty()) event = eventFrom(objectOfWord(options.event, "--event"));
  const Verdict verdict = explain(contentOfFile(options.source).storebag, clientType, facts, event);
  if (options.asJSON)
    fmt::print("{}\n", indentedJSON(jsonOf(toDictionary(verdict))));
  else
    print(verdict);
  return 0;
}

}  // namespace corvid::storebag
