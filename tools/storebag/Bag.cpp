#include "tools/storebag/Bag.h"

#include <fmt/format.h>

#include <cstddef>
#include <optional>

#include "platform/data/PropertyList.h"

namespace corvid::storebag {

namespace {

// Where `one` has a value that `other` lacks or has another for: "release.clients[0].name", empty
// for the whole; nothing where there is none.
std::optional<std::string> firstDifference(const Value& one, const Value* other,
                                           const std::string& path = {}) {
  if (other && one == *other) return std::nullopt;
  if (const Dictionary* dictionary = one.dictionary(); dictionary && other && other->dictionary())
    for (const auto& [key, value] : *dictionary)
      if (auto found = firstDifference(value, other->dictionary()->find(key),
                                       path.empty() ? key : path + "." + key))
        return found;
  const Array* array = one.array();
  const Array* others = other ? other->array() : nullptr;
  // What lacks an item has moved those behind it.
  for (std::size_t at = 0; array && others && at < array->size(); ++at)
    if (auto found = firstDifference((*array)[at], at < others->size() ? &(*others)[at] : nullptr,
                                     fmt::format("{}[{}]", path, at)))
      return found;
  return path;
}

}  // namespace

std::string bagOf(const Content& content, std::string_view name) {
  if (!content.isJSON) return content.bytes;
  std::string bag = writeXMLPropertyList(content.storebag);
  const Result<Value> read = parsePropertyList(bag);
  if (!read) throw CommandError(fmt::format("{}: {}", name, read.failure().message));
  if (const auto path = firstDifference(content.storebag, &read.value()))
    throw CommandError(
        fmt::format("{}: a property list in XML has no form for the value of {}", name, *path));
  return bag;
}

}  // namespace corvid::storebag
