#include "platform/data/KeyedArchive.h"

#include <algorithm>

#include "platform/data/PropertyList.h"

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

std::optional<std::string> archivedData(const Array& array) {
  if (!std::ranges::all_of(array, canBeArchived)) return std::nullopt;
  return writeBinaryPropertyList(array);
}

}  // namespace corvid
