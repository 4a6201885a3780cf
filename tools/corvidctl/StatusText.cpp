#include "tools/corvidctl/StatusText.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Describe.h"
#include "base/Reading.h"
#include "protocol/Reason.h"

namespace corvid::ctl {

namespace {

std::int64_t countAt(const Dictionary& object, std::string_view key) {
  return integerAt(object, key).value_or(0);
}

std::string textOr(const Dictionary& object, std::string_view key, const char* otherwise = "-") {
  const Value* const value = object.find(key);
  if (value == nullptr || value->isNull()) return otherwise;
  if (const auto truth = value->boolean()) return *truth ? "yes" : "no";
  return value->string() ? *value->string() : description(*value);
}

std::optional<double> secondsAt(const Dictionary& object, std::string_view key) {
  return asNumber(object.find(key));
}

std::string heading(std::string_view text, const Screen& screen) {
  return toned(text, Tone::strong, screen) + "\n";
}

Tone toneOfReason(const std::string& word) {
  return word == "reporting" ? Tone::good : word == "takesNoEvents" ? Tone::quiet : Tone::bad;
}

const Dictionary& dictionaryOr(const Dictionary& object, std::string_view key) {
  static const Dictionary none;
  const Dictionary* const found = dictionaryAt(object, key);
  return found ? *found : none;
}

const Array& arrayOr(const Dictionary& object, std::string_view key) {
  static const Array none;
  const Array* const found = arrayAt(object, key);
  return found ? *found : none;
}

std::string sentenceOf(const std::string& word) {
  const auto reason = reasonOf(word);
  return reason ? std::string(textOf(*reason).what) : std::string();
}

// Counts by word, the largest first.
void addCounts(Table& table, const char* name, const Dictionary& counts, bool areReasons) {
  std::vector<std::pair<std::int64_t, std::string>> sorted;
  for (const auto& [word, count] : counts)
    sorted.emplace_back(-asInteger(&count).value_or(0), word);
  std::ranges::sort(sorted);
  for (const auto& [negative, word] : sorted)
    table.add({name,
               {fmt::format("{}", -negative)},
               {word, Tone::bad},
               {areReasons ? sentenceOf(word) : std::string(), Tone::quiet}});
}

std::string ledgerText(const Dictionary& ledger, const Screen& screen) {
  Table table;
  const auto add = [&](const char* key, const char* what) {
    table.add({key, {fmt::format("{}", countAt(ledger, key))}, {""}, {what, Tone::quiet}});
  };
  add("accepted", "each event once for each backend");
  add("delivered", "");
  addCounts(table, "refused", dictionaryOr(ledger, "refused"), false);
  addCounts(table, "failed", dictionaryOr(ledger, "failed"), false);
  addCounts(table, "dropped", dictionaryOr(ledger, "dropped"), true);
  add("held", "wait in batches");
  add("underWay", "");
  return table.text(screen, 2);
}

std::string storebagsText(const Array& storebags, const Screen& screen) {
  Table table;
  table.add({{"name", Tone::quiet},
             {"state", Tone::quiet},
             {"version", Tone::quiet},
             {"age", Tone::quiet},
             {"expires", Tone::quiet},
             {"last error", Tone::quiet}});
  for (const Value& value : storebags) {
    const Dictionary* const bag = value.dictionary();
    if (bag == nullptr) continue;
    const std::string state = textOr(*bag, "state");
    const auto its = secondsAt(*bag, "ageSeconds");
    const auto left = secondsAt(*bag, "expiresInSeconds");
    const auto pause = secondsAt(*bag, "nextAttemptInSeconds");
    std::string error = textOr(*bag, "lastError", "");
    if (!error.empty() && pause && *pause > 0)
      error += fmt::format(" (next attempt in {})", age(*pause));
    table.add({{textOr(*bag, "name")},
               {state, state == "valid"      ? Tone::good
                       : state == "fetching" ? Tone::plain
                                             : Tone::bad},
               {textOr(*bag, "version")},
               {its ? age(*its) : "-"},
               {left ? "in " + age(*left) : "-"},
               {error, Tone::bad}});
  }
  return table.text(screen, 2);
}

std::string hostsText(const Array& hosts, const Screen& screen) {
  Table table;
  table.add({{"host", Tone::quiet},
             {"under way", Tone::quiet},
             {"waiting", Tone::quiet},
             {"delivered", Tone::quiet},
             {"failed", Tone::quiet},
             {"last success", Tone::quiet},
             {"last failure", Tone::quiet}});
  for (const Value& value : hosts) {
    const Dictionary* const host = value.dictionary();
    if (host == nullptr) continue;
    const auto success = secondsAt(*host, "lastSuccessSecondsAgo");
    const Dictionary* const failure = dictionaryAt(*host, "lastFailure");
    const auto ago = failure ? secondsAt(*failure, "secondsAgo") : std::nullopt;
    table.add({{textOr(*host, "host")},
               {textOr(*host, "underWay")},
               {textOr(*host, "waiting")},
               {textOr(*host, "delivered")},
               {textOr(*host, "failed"), countAt(*host, "failed") > 0 ? Tone::bad : Tone::plain},
               {success ? age(*success) + " ago" : "-"},
               {ago ? fmt::format("{} ago: {}", age(*ago), textOr(*failure, "what")) : "-"}});
  }
  return table.text(screen, 2);
}

std::string clockTime(double secondsSince1970) {
  const auto whole = static_cast<std::time_t>(secondsSince1970);
  std::tm local{};
  localtime_r(&whole, &local);
  const auto milliseconds =
      static_cast<int>((secondsSince1970 - static_cast<double>(whole)) * 1000);
  return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                     milliseconds);
}

std::string joined(const Array& names) {
  std::string text;
  for (const Value& name : names) text += (text.empty() ? "" : ", ") + description(name);
  return text;
}

std::string nameOf(const Dictionary& session) {
  const std::string client = textOr(session, "clientName", "");
  const std::string service = textOr(session, "serviceName", "");
  if (client.empty()) return service.empty() ? "-" : service;
  return service.empty() ? client : client + " / " + service;
}

// The parts of one line, cut to the screen.
std::string lineOf(const std::vector<Table::Cell>& cells, const Screen& screen) {
  Table table;
  table.add(cells);
  return table.text(screen);
}

}  // namespace

std::string statusText(const Dictionary& status, const Screen& screen) {
  std::string text =
      lineOf({{fmt::format("corvidd {}", textOr(status, "version")), Tone::strong},
              {fmt::format("process {}", textOr(status, "pid"))},
              {fmt::format("up {}", age(secondsAt(status, "uptimeSeconds").value_or(0)))},
              {fmt::format("sandbox {}", textOr(status, "sandbox")),
               textOr(status, "sandbox") == "enforced" ? Tone::plain : Tone::bad},
              {fmt::format("logs at {}", textOr(status, "logLevel"))},
              {fmt::format("{} sessions", countAt(status, "sessions"))}},
             screen);
  Table device;
  for (const auto& [key, value] : dictionaryOr(status, "device")) {
    const Dictionary* const answer = value.dictionary();
    if (answer == nullptr) continue;
    const bool isKnown = answer->find("value") && !answer->find("value")->isNull();
    device.add({{key},
                {isKnown ? textOr(*answer, "value") : "none", isKnown ? Tone::plain : Tone::bad},
                {isKnown ? textOr(*answer, "source") : "", Tone::quiet}});
  }
  if (!device.empty()) text += "\n" + heading("Device", screen) + device.text(screen, 2);
  if (const Array& bags = arrayOr(status, "storebags"); !bags.empty())
    text += "\n" + heading("Storebags", screen) + storebagsText(bags, screen);
  text += "\n" + heading("Events", screen) + ledgerText(dictionaryOr(status, "ledger"), screen);
  if (const Array& hosts = arrayOr(status, "hosts"); !hosts.empty())
    text += "\n" + heading("Hosts", screen) + hostsText(hosts, screen);
  Table refused;
  for (const auto& [word, count] : dictionaryOr(dictionaryOr(status, "connections"), "refused"))
    if (asInteger(&count).value_or(0) > 0)
      refused.add({{fmt::format("{}", *asInteger(&count))},
                   {word, Tone::bad},
                   {sentenceOf(word), Tone::quiet}});
  if (!refused.empty())
    text += "\n" + heading("Refused connections", screen) + refused.text(screen, 2);
  return text;
}

std::string sessionsText(const Array& sessions, const Screen& screen) {
  if (sessions.empty()) return "no sessions\n";
  // Chains: children below their parents.
  std::map<std::int64_t, std::vector<const Dictionary*>> childrenOf;
  std::map<std::int64_t, const Dictionary*> byNumber;
  for (const Value& value : sessions)
    if (const Dictionary* const session = value.dictionary())
      byNumber[countAt(*session, "session")] = session;
  for (const auto& [number, session] : byNumber) {
    const std::int64_t parent = countAt(*session, "parent");
    childrenOf[byNumber.contains(parent) && parent != number ? parent : 0].push_back(session);
  }
  std::string text;
  const auto show = [&](const auto& self, const Dictionary& session, std::size_t depth) -> void {
    const std::size_t indent = 2 * depth;
    const std::string reason = textOr(session, "reason", "");
    text += std::string(indent, ' ') +
            lineOf({{fmt::format("session {}", textOr(session, "session")), Tone::strong},
                    {nameOf(session)},
                    {fmt::format("type {} {}", textOr(session, "clientType"),
                                 textOr(session, "clientTag", ""))},
                    {fmt::format(
                        "process {}, user {}{}", textOr(session, "pid"), textOr(session, "uid"),
                        textOr(session, "unit", "").empty() ? "" : ", " + textOr(session, "unit"))},
                    {fmt::format("storebag {}", textOr(session, "storebagVersion"))}},
                   {.width = screen.width > indent ? screen.width - indent : 0,
                    .hasColours = screen.hasColours});
    Table backends;
    if (!reason.empty())
      backends.add({{"no backends"}, {reason, Tone::bad}, {sentenceOf(reason), Tone::quiet}});
    for (const Value& value : arrayOr(session, "backends")) {
      const Dictionary* const backend = value.dictionary();
      if (backend == nullptr) continue;
      const std::string its = textOr(*backend, "reason");
      const Dictionary& ledger = dictionaryOr(*backend, "ledger");
      backends.add({{textOr(*backend, "name")},
                    {textOr(*backend, "state")},
                    {its, toneOfReason(its)},
                    {fmt::format("{} held", countAt(*backend, "held"))},
                    {fmt::format("{} of {} delivered", countAt(ledger, "delivered"),
                                 countAt(ledger, "accepted"))},
                    {its == "reporting" ? "" : sentenceOf(its), Tone::quiet}});
    }
    text += backends.text(screen, indent + 2);
    const auto children = childrenOf.find(countAt(session, "session"));
    if (children != childrenOf.end())
      for (const Dictionary* const child : children->second) self(self, *child, depth + 1);
  };
  for (const Dictionary* const top : childrenOf[0]) show(show, *top, 0);
  return text;
}

std::string decisionText(const Dictionary& decision, const Screen& screen) {
  if (const auto lost = integerAt(decision, "lost"))
    return toned(fmt::format("{} lines were lost here", *lost), Tone::bad, screen) + "\n";
  const std::string time = clockTime(secondsAt(decision, "time").value_or(0));
  if (!decision.contains("event")) {
    const std::string error = textOr(decision, "error", "");
    const bool isAnswered = decision.find("status") && !decision.find("status")->isNull();
    const bool isTaken = countAt(decision, "status") / 100 == 2;
    return lineOf({{time, Tone::quiet},
                   {fmt::format("post {}", textOr(decision, "post")), Tone::strong},
                   {fmt::format("session {}", textOr(decision, "session"))},
                   {textOr(decision, "backend")},
                   {fmt::format("{} events, {}", textOr(decision, "events"),
                                size(secondsAt(decision, "bytes").value_or(0)))},
                   {isAnswered      ? fmt::format("status {}", textOr(decision, "status"))
                    : error.empty() ? "under way"
                                    : error,
                    isTaken                        ? Tone::good
                    : isAnswered || !error.empty() ? Tone::bad
                                                   : Tone::plain},
                   {fmt::format("{:.1f} ms", secondsAt(decision, "milliseconds").value_or(0))}},
                  screen);
  }
  std::string text = lineOf(
      {{time, Tone::quiet},
       {fmt::format("event {}", textOr(decision, "event")), Tone::strong},
       {fmt::format("session {}", textOr(decision, "session"))},
       {fmt::format("category {}, type {}, flag {}", textOr(decision, "category"),
                    textOr(decision, "type"), textOr(decision, "flag"))},
       {decision.contains("reason") ? fmt::format("dropped: {}", textOr(decision, "reason")) : "",
        Tone::bad}},
      screen);
  Table backends;
  for (const Value& value : arrayOr(decision, "backends")) {
    const Dictionary* const backend = value.dictionary();
    if (backend == nullptr) continue;
    const std::string reason = textOr(*backend, "reason");
    std::string keys;
    for (const char* const key : {"removed", "digested", "unwritableKeys"})
      if (const Array& names = arrayOr(*backend, key); !names.empty())
        keys += fmt::format("{}{}: {}", keys.empty() ? "" : "; ", key, joined(names));
    const bool hasPost = backend->find("post") && !backend->find("post")->isNull();
    backends.add({{textOr(*backend, "name")},
                  {textOr(*backend, "outcome"),
                   textOr(*backend, "outcome") == "delivered" ? Tone::good : Tone::plain},
                  {reason, toneOfReason(reason)},
                  {hasPost ? fmt::format("post {}", textOr(*backend, "post")) : ""},
                  {keys, Tone::quiet}});
    if (const Dictionary* const record = dictionaryAt(*backend, "record"))
      backends.add({{""}, {""}, {""}, {""}, {description(*record)}});
  }
  return text + backends.text(screen, 4);
}

std::string topText(const Dictionary& status, const Array& sessions, const Array& before,
                    double seconds, const Screen& screen) {
  struct Row {
    double rate = 0;
    std::int64_t held = 0;
    std::int64_t failed = 0;
    const Dictionary* session = nullptr;
  };
  const auto sums = [](const Dictionary& session) {
    std::array<std::int64_t, 3> sum{};  // accepted, held, failed or refused
    for (const Value& value : arrayOr(session, "backends")) {
      const Dictionary* const backend = value.dictionary();
      if (backend == nullptr) continue;
      const Dictionary& ledger = dictionaryOr(*backend, "ledger");
      sum[0] = std::max(sum[0], countAt(ledger, "accepted"));
      sum[1] += countAt(*backend, "held");
      for (const char* const key : {"refused", "failed"})
        for (const auto& [word, count] : dictionaryOr(ledger, key))
          sum[2] += asInteger(&count).value_or(0);
    }
    return sum;
  };
  std::map<std::int64_t, std::int64_t> acceptedBefore;
  for (const Value& value : before)
    if (const Dictionary* const session = value.dictionary())
      acceptedBefore[countAt(*session, "session")] = sums(*session)[0];
  std::vector<Row> rows;
  for (const Value& value : sessions) {
    const Dictionary* const session = value.dictionary();
    if (session == nullptr) continue;
    const auto [accepted, held, failed] = sums(*session);
    const auto known = acceptedBefore.find(countAt(*session, "session"));
    const double rate = known != acceptedBefore.end() && seconds > 0
                            ? static_cast<double>(accepted - known->second) / seconds
                            : 0;
    rows.push_back({rate, held, failed, session});
  }
  std::ranges::stable_sort(rows, [](const Row& a, const Row& b) {
    return std::tie(a.rate, a.held, a.failed) > std::tie(b.rate, b.held, b.failed);
  });
  const Dictionary& ledger = dictionaryOr(status, "ledger");
  std::string text =
      lineOf({{fmt::format("corvidd {}", textOr(status, "version")), Tone::strong},
              {fmt::format("up {}", age(secondsAt(status, "uptimeSeconds").value_or(0)))},
              {fmt::format("{} sessions", countAt(status, "sessions"))},
              {fmt::format("{} accepted", countAt(ledger, "accepted"))},
              {fmt::format("{} delivered", countAt(ledger, "delivered"))},
              {fmt::format("{} held", countAt(ledger, "held"))},
              {fmt::format("{} under way", countAt(ledger, "underWay"))}},
             screen);
  Table table;
  table.add({{"session", Tone::quiet},
             {"events/s", Tone::quiet},
             {"held", Tone::quiet},
             {"failed", Tone::quiet},
             {"client", Tone::quiet}});
  for (const Row& row : rows)
    table.add({{textOr(*row.session, "session")},
               {fmt::format("{:.1f}", row.rate)},
               {fmt::format("{}", row.held)},
               {fmt::format("{}", row.failed), row.failed > 0 ? Tone::bad : Tone::plain},
               {nameOf(*row.session)}});
  return text + "\n" + table.text(screen);
}

}  // namespace corvid::ctl
