// What the verdict on a storebag depends on besides the storebag: the device, its user, the client
// and the event, as people write them down.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "config/Environment.h"

namespace corvid::storebag {

// A device and a client. An absent text is an answer that the device does not have.
struct Facts {
  std::optional<std::string> country{};
  std::optional<std::string> productFamily{};
  std::optional<std::string> hardwareType{};
  std::optional<std::string> productVersion{};
  std::optional<std::string> buildVersion{};
  CorvidEnvironmentType environment = CorvidEnvironmentType::release;
  bool isInternal = false;
  bool consents = false;
  std::optional<Dictionary> userInfo{};     // the client has given none
  std::optional<Dictionary> sessionInfo{};  // empty; the client type is added to it
  double draw = 0.5;                        // of the sampling, in [0, 1)
  std::int32_t timeZoneOffset = 0;          // seconds, east positive
};

// An event as a client sends it.
struct SentEvent {
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::int32_t flag = 0;
  std::optional<Dictionary> payload{};
};

// These read JSON objects. What cannot be meant is a tools::InputError that names it; of an unknown
// key it names the nearest known one.

// country, productFamily, hardwareType, productVersion, buildVersion, environment, internal,
// consent, userInfo, sessionInfo, draw, timeZoneOffset.
Facts factsFrom(const Dictionary& object);
// category, type, flag, payload; the first two must be there.
SentEvent eventFrom(const Dictionary& object);
// A number, or a name as in clientTypeNamed.
std::int32_t clientTypeFrom(const Value& value);

// The facts as they may be read again, those that are absent left out.
Dictionary toDictionary(const Facts& facts);

// What a word of the command line holds: a JSON object, or "@FILE" with one in it.
Dictionary objectOfWord(const std::string& word, std::string_view what);
// The value of JSON text; an InputError begins with `what`.
Value valueOfText(std::string_view text, std::string_view what);
// The same of a file that must be there.
Value valueOfFile(const std::string& file);

}  // namespace corvid::storebag
