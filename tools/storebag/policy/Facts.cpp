#include "tools/storebag/policy/Facts.h"

#include <fmt/format.h>

#include <array>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/LocalFileSystem.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/storebag/Source.h"
#include "tools/storebag/policy/KnownKeys.h"

namespace corvid::storebag {

namespace {

using tools::Arguments;
using tools::InputError;

constexpr std::array<std::string_view, 12> factNames{
    "country",      "productFamily", "hardwareType", "productVersion",
    "buildVersion", "environment",   "internal",     "consent",
    "userInfo",     "sessionInfo",   "draw",         "timeZoneOffset"};
constexpr std::array<std::string_view, 4> eventKeys{"category", "type", "flag", "payload"};
constexpr std::array<std::string_view, 4> environments{"development", "halcyon_internal", "seed",
                                                       "release"};

CorvidEnvironmentType environmentFrom(const std::string& name) {
  if (const auto type = environmentTypeNamed(name)) return *type;
  throw InputError(unknownWord("environment", name, environments));
}

double drawFrom(const Dictionary& object) {
  const Value* const value = object.find("draw");
  if (!value || value->isNull()) return Facts().draw;
  const auto number = value->boolean() ? std::nullopt : asNumber(value);
  if (!number || !(*number >= 0 && *number < 1))
    throw InputError("\"draw\" must be a number from 0 to below 1");
  return *number;
}

std::uint16_t requiredNumber(const Arguments& arguments, std::string_view key) {
  const auto number = arguments.integer(key, 0, std::numeric_limits<std::uint16_t>::max());
  if (!number)
    throw InputError(fmt::format("an event needs \"{}\", a number from 0 to 65535", key));
  return static_cast<std::uint16_t>(*number);
}

}  // namespace

Facts factsFrom(const Dictionary& object) {
  expectKnownKeys(object, "fact", factNames);
  const Arguments arguments(object);
  Facts facts;
  facts.country = arguments.text("country");
  facts.productFamily = arguments.text("productFamily");
  facts.hardwareType = arguments.text("hardwareType");
  facts.productVersion = arguments.text("productVersion");
  facts.buildVersion = arguments.text("buildVersion");
  if (const auto name = arguments.text("environment")) facts.environment = environmentFrom(*name);
  facts.isInternal = arguments.boolean("internal").value_or(false);
  facts.consents = arguments.boolean("consent").value_or(false);
  facts.userInfo = arguments.dictionary("userInfo");
  facts.sessionInfo = arguments.dictionary("sessionInfo");
  facts.draw = drawFrom(object);
  constexpr std::int64_t day = 86'400;
  facts.timeZoneOffset =
      static_cast<std::int32_t>(arguments.integer("timeZoneOffset", -day, day).value_or(0));
  return facts;
}

SentEvent eventFrom(const Dictionary& object) {
  expectKnownKeys(object, "key of an event", eventKeys);
  const Arguments arguments(object);
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  return {.category = requiredNumber(arguments, "category"),
          .type = requiredNumber(arguments, "type"),
          .flag = static_cast<std::int32_t>(arguments.integer("flag", 0, most).value_or(0)),
          .payload = arguments.dictionary("payload")};
}

std::int32_t clientTypeFrom(const Value& value) {
  const std::string* const name = value.string();
  if (const auto type = name ? clientTypeNamed(*name) : std::nullopt) return *type;
  const auto number = name ? numberFrom<std::int64_t>(*name) : value.integer();
  if (!number || *number < std::numeric_limits<std::int32_t>::min() ||
      *number > std::numeric_limits<std::int32_t>::max())
    throw InputError(fmt::format(
        "a client type is a number, a tag or the name of a storebag, not {}", description(value)));
  return static_cast<std::int32_t>(*number);
}

Dictionary toDictionary(const Facts& facts) {
  Dictionary object;
  const auto set = [&](const char* key, const auto& value) {
    if (value) object.set(key, *value);
  };
  set("country", facts.country);
  set("productFamily", facts.productFamily);
  set("hardwareType", facts.hardwareType);
  set("productVersion", facts.productVersion);
  set("buildVersion", facts.buildVersion);
  set("environment", environmentNameForType(facts.environment));
  object.set("internal", facts.isInternal);
  object.set("consent", facts.consents);
  set("userInfo", facts.userInfo);
  set("sessionInfo", facts.sessionInfo);
  object.set("draw", facts.draw);
  object.set("timeZoneOffset", facts.timeZoneOffset);
  return object;
}

Value valueOfText(std::string_view text, std::string_view what) {
  const Result<Value> json = parseJSON(text);
  Result<Value> value = json ? tools::valueFromJSON(json.value()) : json;
  if (!value) throw InputError(fmt::format("{}: {}", what, value.failure().message));
  return std::move(value).value();
}

Value valueOfFile(const std::string& file) {
  const Result<std::string> text = readRegularFile(file);
  if (!text) throw CommandError(text.failure().message);
  return valueOfText(text.value(), file);
}

Dictionary objectOfWord(const std::string& word, std::string_view what) {
  const bool isFile = word.starts_with('@');
  const Value value = isFile ? valueOfFile(word.substr(1)) : valueOfText(word, what);
  if (const Dictionary* const object = value.dictionary()) return *object;
  throw InputError(fmt::format("{} takes a JSON object or @FILE", what));
}

}  // namespace corvid::storebag
