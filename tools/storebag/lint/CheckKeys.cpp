// Keys and values against the table of keys.
#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <vector>

#include "base/Describe.h"
#include "base/NearestWord.h"
#include "base/Reading.h"
#include "base/Text.h"
#include "platform/Network.h"
#include "platform/http/Address.h"
#include "tools/storebag/lint/Checks.h"

namespace corvid::storebag {

namespace {

constexpr std::size_t longestShown = 60;
constexpr std::size_t longestIPAddress = 15;
constexpr std::uint32_t noIPAddress = 0xffffffff;

std::string_view nameOf(Value::Type type) {
  switch (type) {
    case Value::Type::null: return "nothing";
    case Value::Type::boolean: return "a boolean";
    case Value::Type::integer: return "an integer";
    case Value::Type::real: return "a real";
    case Value::Type::date: return "a date";
    case Value::Type::string: return "a text";
    case Value::Type::data: return "data";
    case Value::Type::array: return "an array";
    case Value::Type::dictionary: return "a dictionary";
  }
  return {};
}

std::string shown(std::string_view text) {
  if (text.size() <= longestShown) return fmt::format("\"{}\"", text);
  return fmt::format("\"{}...\"", text.substr(0, longestShown));
}

class KeyCheck {
 public:
  explicit KeyCheck(Report& report) : _report(report) {}

  void dictionary(const Dictionary& dictionary, StorebagPlace place, const std::string& path) {
    for (const auto& [name, content] : dictionary) {
      const StorebagKey* key = storebagKey(place, name);
      if (key)
        value(content, *key, join(path, name));
      else
        unknown(place, name, path);
    }
    for (const StorebagKey& key : storebagKeysAt(place))
      if (key.isRequired && !dictionary.contains(key.name))
        _report.wrong(join(path, key.name), fmt::format("is missing: {}", key.without),
                      fmt::format("add {}: {}", textOf(key.type), key.effect));
  }

 private:
  void unknown(StorebagPlace place, const std::string& name, const std::string& path) {
    std::vector<std::string_view> known;
    for (const StorebagKey& key : storebagKeysAt(place)) known.push_back(key.name);
    if (const auto nearest = nearestWord(name, known))
      return _report.wrong(join(path, name),
                           fmt::format("no such key is read here; the nearest is \"{}\"", *nearest),
                           fmt::format("rename it to \"{}\"", *nearest));
    for (const StorebagKey& key : storebagKeys())
      if (key.name == name)
        return _report.wrong(join(path, name), "no such key is read here, only elsewhere",
                             fmt::format("move it to {}", pathOf(key)));
    // Whoever signs may put something beside for readers of his own.
    _report.note(join(path, name), "no such key is read", "take it away unless others read it");
  }

  void value(const Value& value, const StorebagKey& key, const std::string& path) {
    switch (key.type) {
      case StorebagType::text:
        if (!value.string()) ofWrongType(value, key, path);
        break;
      case StorebagType::address: address(value, key, path); break;
      case StorebagType::ipAddress: ipAddress(value, key, path); break;
      case StorebagType::integer: integer(value, key, path); break;
      case StorebagType::threshold: threshold(value, key, path); break;
      case StorebagType::texts:
      case StorebagType::dictionaries: array(value, key, path); break;
      case StorebagType::dictionary:
        if (const Dictionary* content = value.dictionary())
          dictionary(*content, *key.content, path);
        else
          ofWrongType(value, key, path);
        break;
      case StorebagType::anything: break;
    }
  }

  void ofWrongType(const Value& value, const StorebagKey& key, const std::string& path,
                   std::string suggestion = {}) {
    if (isPlaceholder(value)) return placeholder(path);
    _report.wrong(path,
                  fmt::format("is {}, not {}; devices go on as without it: {}",
                              nameOf(value.type()), textOf(key.type), key.without),
                  std::move(suggestion));
  }

  void placeholder(const std::string& path) {
    _report.note(path, "is a placeholder, which corvid-lab fills in and no other server",
                 "write the value itself before it is published");
  }

  void address(const Value& value, const StorebagKey& key, const std::string& path) {
    const std::string* text = value.string();
    if (!text) return ofWrongType(value, key, path);
    if (isPlaceholder(value)) return placeholder(path);
    const Result<URL> url = addressOf(*text, false);
    if (url) return;
    std::string better(trimmed(*text));
    if (const auto parts = parseURL(better); parts && equalsIgnoringCase(parts->scheme, "http"))
      better.replace(0, parts->scheme.size(), "https");
    else if (parts && parts->scheme.empty() && parts->authority.empty())
      better = "https://" + better;
    _report.wrong(
        path,
        fmt::format("{} is an address that no device takes: {}", shown(*text),
                    url.failure().message),
        addressOf(better, false) ? fmt::format("write {}", shown(better)) : std::string());
  }

  void ipAddress(const Value& value, const StorebagKey& key, const std::string& path) {
    const std::string* text = value.string();
    if (!text) return ofWrongType(value, key, path);
    if (isPlaceholder(value)) return placeholder(path);
    if (text->size() <= longestIPAddress && ipv4AddressFromText(*text) != noIPAddress) return;
    _report.wrong(path,
                  fmt::format("{} is an address that no device takes: no IPv4 address in dotted "
                              "form",
                              shown(*text)));
  }

  void integer(const Value& value, const StorebagKey& key, const std::string& path) {
    if (isPlaceholder(value)) return placeholder(path);
    const std::optional<std::int64_t> number = asInteger(&value);
    const auto real = value.real();
    const bool isInteger =
        value.integer() || (real && number && static_cast<double>(*number) == *real);
    if (!number) return ofWrongType(value, key, path);
    if (!isInteger)
      return _report.wrong(
          path,
          fmt::format("is {}, not an integer; devices read {}", nameOf(value.type()), *number),
          fmt::format("write {} if that is meant", *number));
    if (*number < key.least || *number > key.most)
      _report.wrong(path,
                    fmt::format("{} is out of range: {} to {}", *number, key.least, key.most));
  }

  void threshold(const Value& value, const StorebagKey& key, const std::string& path) {
    if (value.boolean() || !asNumber(&value)) {
      const std::string* text = value.string();
      const auto meant = text ? numberFrom<double>(trimmed(*text)) : std::nullopt;
      return ofWrongType(value, key, path,
                         meant ? fmt::format("write the number {}", *meant) : std::string());
    }
    const double number = *asNumber(&value);
    if (number >= -1 && number <= 1) return;
    const bool isPercentage = number > 1 && number <= 100;
    _report.wrong(
        path, fmt::format("{} is out of range: -1 to 1", number),
        isPercentage ? fmt::format("write {} for {} %", number / 100, number) : std::string());
  }

  void array(const Value& value, const StorebagKey& key, const std::string& path) {
    const Array* items = value.array();
    if (!items) return ofWrongType(value, key, path);
    const bool holdsTexts = key.type == StorebagType::texts;
    for (std::size_t index = 0; index < items->size(); ++index) {
      const Value& item = (*items)[index];
      const Dictionary* content = holdsTexts ? nullptr : item.dictionary();
      if (content)
        dictionary(*content, *key.content, at(path, index));
      else if (!holdsTexts || !item.string())
        _report.wrong(at(path, index),
                      fmt::format("is {}, not {}; devices pass it over", nameOf(item.type()),
                                  holdsTexts ? "a text" : "a dictionary"));
    }
  }

  Report& _report;
};

}  // namespace

void checkKeys(const Dictionary& dictionary, StorebagPlace place, const std::string& path,
               Report& report) {
  KeyCheck(report).dictionary(dictionary, place, path);
}

}  // namespace corvid::storebag
