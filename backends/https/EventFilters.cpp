#include "backends/https/EventFilters.h"

#include <algorithm>
#include <cstring>

#include "backends/CorvidBackend.h"
#include "platform/base/Describe.h"
#include "platform/base/Reading.h"
#include "platform/base/Text.h"

namespace corvid {

namespace {

FilterAction actionNamed(const std::string* name) {
  if (name != nullptr && *name == "remove") return FilterAction::remove;
  if (name != nullptr && *name == "sha256") return FilterAction::digest;
  return FilterAction::keep;
}

FilterTag tagFor(const Dictionary& filter) {
  return {.method = static_cast<std::int32_t>(integerAt(filter, "method").value_or(-1)),
          .status = static_cast<std::int32_t>(integerAt(filter, "status").value_or(-1)),
          .action = actionNamed(stringAt(filter, "action"))};
}

bool isASCII(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}

// A hash of the length and the two ends. Setting bit 5 makes both cases of an ASCII letter the
// same; that it takes a few other characters together too costs a comparison at most.
std::size_t hashOfEnds(std::string_view text) {
  constexpr std::uint64_t caseBits = 0x2020202020202020;
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  const std::size_t length = std::min(text.size(), sizeof first);
  std::memcpy(&first, text.data(), length);
  std::memcpy(&last, text.data() + text.size() - length, length);
  std::uint64_t hash = ((first | caseBits) + text.size()) * 0x9E3779B97F4A7C15;
  hash = (hash ^ (hash >> 32) ^ (last | caseBits)) * 0xC2B2AE3D27D4EB4F;
  return static_cast<std::size_t>(hash ^ (hash >> 29));
}

}  // namespace

std::size_t EventFilters::FoldingHash::operator()(std::string_view key) const {
  return isASCII(key) ? hashOfEnds(key) : hashOfEnds(caseFolded(key));
}

bool EventFilters::FoldingEqual::operator()(std::string_view a, std::string_view b) const {
  return equalsIgnoringCase(a, b);
}

EventFilters::EventFilters(const Array& filters) {
  for (const Value& item : filters) {
    const Dictionary* filter = item.dictionary();
    const std::string* key = filter ? stringAt(*filter, "key") : nullptr;
    if (key != nullptr) _filters[*key].push_back(tagFor(*filter));
  }
}

FilterAction EventFilters::actionFor(std::string_view key, std::int32_t method,
                                     std::int32_t status) const {
  const auto found = _filters.find(key);
  if (found == _filters.end()) return FilterAction::keep;
  for (const FilterTag& tag : found->second)
    if (tag.appliesTo(method, status)) return tag.action;
  return FilterAction::keep;
}

void EventFilters::apply(Dictionary& record) const {
  if (_filters.empty()) return;
  const std::int32_t method = int32At(record, "_method");
  const std::int32_t status = int32At(record, "_status");
  record.transformEntries([&](const std::string& key, Value& value) {
    const FilterAction action = actionFor(key, method, status);
    if (action == FilterAction::digest) {
      const std::string* text = value.string();
      value = CorvidBackend::convertIntoSHA256(text ? *text : description(value));
    }
    return action != FilterAction::remove;
  });
}

}  // namespace corvid
