#include "status/Decision.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "base/Text.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

constexpr std::array<std::string_view, 7> backendNames{kCorvidBackendHTTPPost,
                                                       kCorvidBackendHTTPPost2,
                                                       kCorvidBackendDashboard,
                                                       kCorvidBackendUploadServer,
                                                       kCorvidBackendMetrix,
                                                       kCorvidBackendWattbook,
                                                       "other"};

Array arrayOf(const std::vector<std::string>& names) { return {names.begin(), names.end()}; }

Dictionary toDictionary(const Verdict& verdict, bool withRecords) {
  const KeysChanged none;
  const KeysChanged& keys = verdict.keys ? *verdict.keys : none;
  Dictionary result{
      {"name", backendNames[verdict.backend]},
      {"outcome", wordOf(verdict.outcome)},
      {"reason", wordOf(verdict.reason)},
      {"removed", arrayOf(keys.names(KeysChanged::Change::removed))},
      {"digested", arrayOf(keys.names(KeysChanged::Change::digested))},
      {"post", verdict.post ? Value(std::int64_t{verdict.post}) : Value()},
  };
  if (const auto names = keys.names(KeysChanged::Change::unwritable); !names.empty())
    result.set("unwritableKeys", arrayOf(names));
  if (withRecords) result.set("record", verdict.record ? Value(*verdict.record) : Value());
  return result;
}

Dictionary toDictionary(const EventDecision& event, bool withRecords) {
  Array backends;
  for (std::size_t at = 0; at < event.backends; ++at)
    backends.push_back(toDictionary(event.verdicts[at], withRecords));
  Dictionary result{
      {"event", static_cast<std::int64_t>(event.number)},
      {"time", event.time},
      {"session", static_cast<std::int64_t>(event.session)},
      {"category", std::int64_t{event.category}},
      {"type", std::int64_t{event.type}},
      {"flag", std::int64_t{event.flag}},
      {"backends", std::move(backends)},
  };
  if (event.withoutBackends != Reason::reporting) {
    result.set("outcome", wordOf(Outcome::dropped));
    result.set("reason", wordOf(event.withoutBackends));
  }
  return result;
}

Dictionary toDictionary(const PostDecision& post, bool) {
  return {
      {"post", static_cast<std::int64_t>(post.number)},
      {"time", post.time},
      {"session", static_cast<std::int64_t>(post.session)},
      {"backend", backendNames[post.backend]},
      {"events", std::int64_t{post.events}},
      {"bytes", static_cast<std::int64_t>(post.bytes)},
      {"status", post.status ? Value(std::int64_t{*post.status}) : Value()},
      {"milliseconds", post.milliseconds},
      {"error", post.error ? Value(*post.error) : Value()},
  };
}

}  // namespace

void KeysChanged::add(Change change, std::string_view key) {
  key = key.substr(0, key.find('\0'));
  if (_packed.size() + key.size() + 2 > mostBytes) return;
  _packed.push_back(static_cast<char>(change));
  _packed.append(key).push_back('\0');
}

std::vector<std::string> KeysChanged::names(Change change) const {
  std::vector<std::string> result;
  for (std::size_t at = 0; at < _packed.size();) {
    const char* const name = &_packed[at + 1];
    if (_packed[at] == static_cast<char>(change)) result.push_back(replacingInvalidUTF8(name));
    at += std::strlen(name) + 2;
  }
  std::ranges::sort(result);
  return result;
}

std::uint8_t numberOfBackend(std::string_view name) {
  const auto found = std::ranges::find(backendNames, name);
  const auto last = std::prev(backendNames.end());
  return static_cast<std::uint8_t>((found == backendNames.end() ? last : found) -
                                   backendNames.begin());
}

std::uint64_t sessionOf(const Decision& decision) {
  return std::visit([](const auto& each) { return each.session; }, decision);
}

Dictionary toDictionary(const Decision& decision, bool withRecords) {
  return std::visit([&](const auto& each) { return toDictionary(each, withRecords); }, decision);
}

}  // namespace corvid
