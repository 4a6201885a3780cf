#include "tests/e2e/ChainFixture.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "base/Reading.h"
#include "tests/support/Waiting.h"

namespace corvid {

namespace {

// By level: what the client type of a level is called.
constexpr std::array<const char*, 3> storebagNames{"orrery", "cadence", "quill"};
constexpr std::array<const char*, 3> senders{"ZL", "ZM", "ZN"};

// Lets every country code pass.
Array everyLetter() {
  Array letters;
  for (char letter = 'A'; letter <= 'Z'; ++letter) letters.push_back(std::string(1, letter));
  return letters;
}

}  // namespace

Dictionary ChainMember::userInfo(const std::string& clientName, const std::string& serviceName) {
  return {{"_clientName", clientName}, {"_serviceName", serviceName}};
}

Dictionary ChainMember::sessionInfo() const {
  return {{"ClientType", clientType(_description.level)},
          {"ClientVersion", 3},
          {"SessionID", _sessionID},
          {"RequireUserInfo", _description.requiresUserInfo},
          {"BatchEvent", true}};
}

std::string ChainMember::joined(const Dictionary& outcome) {
  const Array* states = arrayAt(outcome, "states");
  if (states == nullptr) return "null";
  std::string text;
  for (const Value& state : *states) text.append(text.empty() ? "" : ",").append(*state.string());
  return text;
}

void ChainMember::start(const Description& description) {
  _description = description;
  _process.call({{"call", "setSessionInfo"},
                 {"sessionInfo", sessionInfo()},
                 {"userInfo", userInfo(description.clientName, description.serviceName)},
                 {"hasAggregationBlock", description.aggregates}});
  _states = joined(_process.call({{"call", "startConfig"}}));
}

std::string ChainMember::fetchStates(const std::optional<Dictionary>& userInfo) {
  Dictionary line{{"call", "fetchStates"}};
  if (userInfo) line.set("userInfo", *userInfo);
  return joined(_process.call(line));
}

void ChainMember::send(const std::string& mark, int flag) {
  const Dictionary message{
      {"Category", 7}, {"Type", 2}, {"Flag", flag}, {"Payload", Dictionary{{"mark", mark}}}};
  const Dictionary outcome =
      _process.call({{"call", "sendMessageWithDictionary"}, {"message", message}});
  EXPECT_TRUE(outcome.contains("result")) << mark;
}

std::string ChainMember::flush() {
  const Dictionary outcome = _process.call({{"call", "flush"}});
  if (!outcome.contains("error")) return "no answer";
  const Dictionary* error = dictionaryAt(outcome, "error");
  return error ? *stringAt(*error, "description") : "flushed";
}

void ChainMember::sendAndFlush(const std::string& mark) {
  send(mark);
  EXPECT_EQ(flush(), "flushed") << mark;
}

void ChainFixture::SetUp() {
  for (int level = 0; level < static_cast<int>(storebagNames.size()); ++level) publishLevel(level);
  startDaemon();
}

Dictionary ChainFixture::entryOf(int level, const Dictionary& more) {
  Dictionary entry{{"post_url", "${events}"}, {"realtime_post_url", "${realtime}"},
                   {"hierarchy", level},      {"event_threshold", 10000},
                   {"override_dnu", 1},       {"locale_whitelist", everyLetter()},
                   {"filters", Array{}},      {"sampling_threshold", 1.0}};
  entry.addEntriesFrom(more);
  return entry;
}

void ChainFixture::publishLevel(int level, const Dictionary& more) {
  const Dictionary profile{{"clients", Array{entryOf(level, more)}}};
  publish(storebagNames.at(static_cast<std::size_t>(level)),
          {{"version", fmt::format("level {}", level)},
           {"refresh_cycle", 3600},
           {"release", Dictionary{{"httpPost", profile}}}});
}

ChainMember ChainFixture::join(const ChainMember::Description& description) {
  constexpr std::string_view born = "initWithSessionDelegate: Initialized session with UUID ";
  ChainMember member(_root.path(), static_cast<int>(_joined) + 1);
  EXPECT_TRUE(waitUntil([&] { return timesLogged(born) > _joined; }));
  ++_joined;
  const std::string log = _daemon->standardError();
  const std::size_t begin = log.rfind(born) + born.size();
  member.identifier = log.substr(begin, log.find('\n', begin) - begin);
  member.start(description);
  return member;
}

std::string ChainFixture::textOf(std::string_view mark, std::string_view key) {
  EXPECT_TRUE(waitUntil([&] { return arrivals(mark) > 0; })) << mark;
  for (const Dictionary& record : records())
    if (const std::string* text = stringAt(record, "mark"); text != nullptr && *text == mark) {
      const std::string* found = stringAt(record, key);
      return found ? *found : "";
    }
  return "no record";
}

std::vector<Dictionary> ChainFixture::recordsOfLevel(int level) {
  std::vector<Dictionary> found = records();
  const std::string_view sender = senders.at(static_cast<std::size_t>(level));
  std::erase_if(found, [&](const auto& record) { return *stringAt(record, "_sender") != sender; });
  return found;
}

std::optional<Dictionary> ChainFixture::endMessageOfLevel(int level) {
  std::optional<Dictionary> end;
  EXPECT_TRUE(waitUntil([&] {
    for (const Dictionary& record : recordsOfLevel(level))
      if (record.contains("StorebagVersion")) end = record;
    return end.has_value();
  })) << level;
  return end;
}

}  // namespace corvid
