// Why a request was not taken: the closed list of rules, each with its status, word and line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace corvid::fleet {

enum class Rule : std::uint8_t {
  // The client's faults: refused.
  malformed,
  headTooLarge,
  slowHead,
  slowBody,
  cutOff,
  unknownAddress,
  method,
  lengthMissing,
  sentTooLarge,
  unpackedTooLarge,
  encoding,
  damagedGzip,
  noJSON,
  nesting,
  noUTF8,
  nul,
  surrogate,
  number,
  trailing,
  noObject,
  noEvents,
  eventsNoArray,
  eventNoObject,
  duplicateKey,
  members,
  tooManyEvents,
  header,
  query,
  emptyFile,
  noLogData,
  clientConnections,
  clientExchanges,
  clientRequests,
  clientBytes,
  clientTime,
  clientMemory,
  logRefused,
  // The gateway's own: failed.
  logUnanswered,
  memoryFull,
  diskFull,
  diskFailed,
};
inline constexpr std::size_t ruleCount = static_cast<std::size_t>(Rule::diskFailed) + 1;

struct RuleText {
  Rule rule;
  // Of the answer; 0 where nobody is there to be answered. What has failed for want of the log or
  // of memory is answered as the configuration says (Settings::whenFull), and has 0 here too.
  int status;
  std::string_view word;  // in metrics
  std::string_view text;  // one line for people, without a full stop
};

// In the order of the rules.
std::span<const RuleText, ruleCount> ruleTexts();
inline const RuleText& textOf(Rule rule) { return ruleTexts()[static_cast<std::size_t>(rule)]; }
constexpr bool isClientsFault(Rule rule) { return rule < Rule::logUnanswered; }

// A rule that was broken, and where. The detail never repeats what the client sent: an upload's
// answer that holds a certain word would have the client remove its file.
struct Refusal {
  Rule rule;
  std::string detail{};  // follows the rule's text after a blank, such as "at byte 12"
};

}  // namespace corvid::fleet
