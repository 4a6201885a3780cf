#include "backends/https/EventFilters.h"

#include <algorithm>
#include <array>
#include <functional>

#include "backends/CorvidBackend.h"
#include "base/Describe.h"
#include "base/Reading.h"
#include "base/Text.h"

namespace corvid {

namespace {

FilterAction actionNamed(const std::string* name) {
  if (name != nullptr && *name == "remove") return FilterAction::remove;
  if (name != nullptr && *name == "sha256") return FilterAction::digest;
  return FilterAction::keep;
}

// The same for ASCII keys that differ by case alone.
std::uint64_t markOf(std::string_view key) {
  const std::size_t first = key.empty() ? 0 : static_cast<unsigned char>(key.front()) | 0x20u;
  return std::uint64_t{1} << ((first + 11 * key.size()) % 64);
}

}  // namespace

filterTag tagFor(const Dictionary& filter) {
  return {.method = static_cast<std::int32_t>(integerAt(filter, "method").value_or(-1)),
          .status = static_cast<std::int32_t>(integerAt(filter, "status").value_or(-1)),
          .action = actionNamed(stringAt(filter, "action"))};
}

std::size_t EventFilters::FoldingHash::operator()(std::string_view key) const {
  // Nearly every key is a short ASCII text; folding one takes no memory.
  std::array<char, 64> folded;
  if (key.size() > folded.size() || !isASCII(key)) return std::hash<std::string>()(caseFolded(key));
  std::ranges::transform(key, folded.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return std::hash<std::string_view>()({folded.data(), key.size()});
}

bool EventFilters::FoldingEqual::operator()(std::string_view a, std::string_view b) const {
  return equalsIgnoringCase(a, b);
}

EventFilters::EventFilters(const Array& filters) : _numberOfFilters(filters.size()) {
  for (const Value& item : filters) {
    const Dictionary* filter = item.dictionary();
    const std::string* key = filter ? stringAt(*filter, "key") : nullptr;
    if (key == nullptr) continue;
    _filters[*key].push_back(tagFor(*filter));
    // What others are folded to may be ASCII, of another length.
    _marks |= markOf(caseFolded(*key));
  }
}

EventFilters::Filters::const_iterator EventFilters::filtersFor(std::string_view key) const {
  const bool mayBeThere = (_marks & markOf(key)) != 0 || !isASCII(key);
  return mayBeThere ? _filters.find(key) : _filters.end();
}

FilterAction EventFilters::actionFor(std::string_view key, std::int32_t method,
                                     std::int32_t status) const {
  const auto found = filtersFor(key);
  if (found == _filters.end()) return FilterAction::keep;
  for (const filterTag& tag : found->second)
    if (tag.appliesTo(method, status)) return tag.action;
  return FilterAction::keep;
}

bool EventFilters::mention(const Dictionary& keys) const {
  return std::ranges::any_of(keys, [&](const Dictionary::Entry& entry) {
    return filtersFor(entry.key) != _filters.end();
  });
}

bool EventFilters::ignoreMethodsFor(const Dictionary& keys) const {
  return std::ranges::none_of(keys, [&](const Dictionary::Entry& entry) {
    const auto found = filtersFor(entry.key);
    return found != _filters.end() && !std::ranges::all_of(found->second, [](const filterTag& tag) {
             return tag.method < 0 && tag.status < 0;
           });
  });
}

void EventFilters::apply(Dictionary& record, KeysChanged* changed) const {
  apply(record, int32At(record, "_method"), int32At(record, "_status"), changed);
}

void EventFilters::apply(Dictionary& part, std::int32_t method, std::int32_t status,
                         KeysChanged* changed) const {
  if (_filters.empty()) return;
  part.transformEntries([&](const std::string& key, Value& value) {
    const FilterAction action = actionFor(key, method, status);
    if (action == FilterAction::digest) {
      const std::string* text = value.string();
      value = CorvidBackend::convertIntoSHA256(text ? *text : description(value));
    }
    if (changed && action != FilterAction::keep)
      changed->add(action == FilterAction::digest ? KeysChanged::Change::digested
                                                  : KeysChanged::Change::removed,
                   key);
    return action != FilterAction::remove;
  });
}

}  // namespace corvid
