#include "gateway/Rule.h"

#include <array>

namespace corvid::fleet {

namespace {

constexpr std::array<RuleText, ruleCount> texts{{
    {Rule::malformed, 400, "malformed", "the request is not HTTP/1.1 as RFC 9112 has it"},
    {Rule::headTooLarge, 431, "headTooLarge", "the headers have more than 16384 bytes"},
    {Rule::slowHead, 408, "slowHead", "the headers did not come in time"},
    {Rule::slowBody, 408, "slowBody", "the body did not come in time"},
    {Rule::cutOff, 0, "cutOff", "the connection ended before the request did"},
    {Rule::unknownAddress, 404, "unknownAddress", "nothing is taken or given at this address"},
    {Rule::method, 405, "method", "this address does not take this method"},
    {Rule::lengthMissing, 411, "lengthMissing", "the body's length is not said"},
    {Rule::sentTooLarge, 413, "sentTooLarge", "the body is too large as it is sent; the most are"},
    {Rule::unpackedTooLarge, 413, "unpackedTooLarge",
     "the body is too large when it is unpacked; the most are"},
    {Rule::encoding, 415, "encoding", "the body's Content-Encoding is neither gzip nor identity"},
    {Rule::damagedGzip, 400, "damagedGzip", "the body is not one whole gzip stream"},
    {Rule::noJSON, 400, "noJSON", "the body is not JSON"},
    {Rule::nesting, 400, "nesting", "the body is nested deeper than 32 levels"},
    {Rule::noUTF8, 400, "noUTF8", "the body is not UTF-8"},
    {Rule::nul, 400, "nul", "the body holds the character NUL"},
    {Rule::surrogate, 400, "surrogate", "a text holds one half of a surrogate pair"},
    {Rule::number, 400, "number", "a number is out of range"},
    {Rule::trailing, 400, "trailing", "something follows the JSON object"},
    {Rule::noObject, 400, "noObject", "the body is no JSON object"},
    {Rule::noEvents, 400, "noEvents", "the object has no \"events\""},
    {Rule::eventsNoArray, 400, "eventsNoArray", "\"events\" is no array"},
    {Rule::eventNoObject, 400, "eventNoObject", "an event is no object"},
    {Rule::duplicateKey, 400, "duplicateKey", "a key stands twice in one object"},
    {Rule::members, 400, "members", "an object has more than 65536 members"},
    {Rule::tooManyEvents, 400, "tooManyEvents", "the post has more than 65536 events"},
    {Rule::header, 400, "header",
     "an X-CVD header came twice, is too long or holds control characters"},
    {Rule::query, 400, "query",
     "the query lacks uuid, sequence or filename, names one twice, or is too long"},
    {Rule::emptyFile, 400, "emptyFile", "the file is empty"},
    {Rule::noLogData, 400, "noLogData", "log data is a binary property list that holds an array"},
    {Rule::clientConnections, 429, "clientConnections", "too many connections of this client"},
    {Rule::clientExchanges, 429, "clientExchanges", "too many requests of this client at once"},
    {Rule::clientRequests, 429, "clientRequests", "too many requests of this client"},
    {Rule::clientBytes, 429, "clientBytes", "too many bytes of this client"},
    {Rule::clientTime, 429, "clientTime", "the requests of this client take too much time"},
    {Rule::clientMemory, 429, "clientMemory", "the requests of this client take too much memory"},
    {Rule::logRefused, 422, "logRefused", "the log does not take this message"},
    {Rule::logUnanswered, 0, "logUnanswered", "the log does not answer"},
    {Rule::memoryFull, 0, "memoryFull", "too many requests are under way"},
    {Rule::diskFull, 507, "diskFull", "the disk has no room for the file"},
    {Rule::diskFailed, 503, "diskFailed", "the file could not be written"},
}};

constexpr bool areInOrder() {
  for (std::size_t i = 0; i < texts.size(); ++i)
    if (static_cast<std::size_t>(texts[i].rule) != i) return false;
  return true;
}
static_assert(areInOrder());

}  // namespace

std::span<const RuleText, ruleCount> ruleTexts() { return texts; }

}  // namespace corvid::fleet
