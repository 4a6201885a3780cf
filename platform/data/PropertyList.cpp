#include "platform/data/PropertyList.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyListForms.h"

namespace corvid {

namespace {

bool canBeArchived(const Value& value) {
  if (const Array* array = value.array()) return std::ranges::all_of(*array, canBeArchived);
  if (const Dictionary* dictionary = value.dictionary())
    return std::ranges::all_of(*dictionary,
                               [](const auto& entry) { return canBeArchived(entry.value); });
  return !value.isNull();
}

}  // namespace

Result<Value> parsePropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  if (bytes.empty()) return Failure{"The property list is empty"};
  if (bytes.size() > limits.bytes)
    return Failure{
        fmt::format("The property list has {} bytes, more than {}", bytes.size(), limits.bytes)};
  try {
    return bytes.starts_with(binaryPropertyListMagic) ? readBinaryPropertyList(bytes, limits)
                                                      : readXMLPropertyList(bytes, limits);
  } catch (const UnusableList& reason) {
    return Failure{reason.what()};
  }
}

Result<Dictionary> parseDictionary(std::string_view bytes, const PropertyListLimits& limits) {
  const Result<Value> list = parsePropertyList(bytes, limits);
  if (!list) return list.failure();
  if (const Dictionary* dictionary = list.value().dictionary()) return *dictionary;
  return Failure{"not a dictionary"};
}

Result<Dictionary> readDictionaryFile(const std::string& path) {
  const Result<std::string> content = readRegularFile(path, PropertyListLimits().bytes);
  if (!content) return content.failure();
  Result<Dictionary> dictionary = parseDictionary(content.value());
  if (!dictionary) return Failure{path + ": " + dictionary.failure().message};
  return dictionary;
}

std::optional<std::string> archivedData(const Array& array) {
  if (!std::ranges::all_of(array, canBeArchived)) return std::nullopt;
  return writeBinaryPropertyList(array);
}

}  // namespace corvid
