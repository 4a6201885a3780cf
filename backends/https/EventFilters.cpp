#include "backends/https/EventFilters.h"

#include <algorithm>
#include <cstring>

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

filterTag tagFor(const Dictionary& filter) {
  return {.method = static_cast<std::int32_t>(integerAt(filter, "method").value_or(-1)),
          .status = static_cast<std::int32_t>(integerAt(filter, "status").value_or(-1)),
          .action = actionNamed(stringAt(filter, "action"))};
}

constexpr std::uint64_t everyByte(std::uint8_t byte) { return 0x0101010101010101u * byte; }

template <class Word>
std::uint64_t wordAt(const char* from) {
  Word word;
  std::memcpy(&word, from, sizeof word);
  return word;
}

// The first and the last eight bytes, which overlap in between; of fewer than eight bytes a mix
// that holds each of them.
struct Ends {
  explicit Ends(std::string_view text) {
    const char* const end = text.data() + text.size();
    if (text.size() >= 8) {
      first = wordAt<std::uint64_t>(text.data());
      last = wordAt<std::uint64_t>(end - 8);
    } else if (text.size() >= 4) {
      first = wordAt<std::uint32_t>(text.data());
      last = wordAt<std::uint32_t>(end - 4);
    } else {
      for (const char c : text) first = first << 8 | static_cast<unsigned char>(c);
    }
  }
  std::uint64_t first = 0;
  std::uint64_t last = 0;
};

bool isASCII(std::string_view text, const Ends& ends) {
  std::uint64_t bytes = ends.first | ends.last;
  for (std::size_t at = 8; at + 8 < text.size(); at += 8)
    bytes |= wordAt<std::uint64_t>(text.data() + at);
  return (bytes & everyByte(0x80)) == 0;
}

// Setting bit 5 makes both cases of an ASCII letter the same; that it takes a few other characters
// together too costs a comparison at most.
std::size_t hashOf(std::string_view text, const Ends& ends) {
  constexpr std::uint64_t caseBits = everyByte(0x20);
  std::uint64_t hash = ((ends.first | caseBits) + text.size()) * 0x9E3779B97F4A7C15;
  hash = (hash ^ (hash >> 32) ^ (ends.last | caseBits)) * 0xC2B2AE3D27D4EB4F;
  return static_cast<std::size_t>(hash ^ (hash >> 29));
}

// Equal for keys that are equal ignoring case.
std::size_t foldingHash(std::string_view key) {
  const Ends ends(key);
  if (isASCII(key, ends)) [[likely]]
    return hashOf(key, ends);
  const std::string folded = caseFolded(key);
  return hashOf(folded, Ends(folded));
}

}  // namespace

std::size_t EventFilters::FoldingHash::operator()(std::string_view key) const {
  return foldingHash(key);
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
    _mayHave.set(foldingHash(*key) % _mayHave.size());
  }
}

FilterAction EventFilters::actionFor(std::string_view key, std::int32_t method,
                                     std::int32_t status) const {
  if (!_mayHave[foldingHash(key) % _mayHave.size()]) return FilterAction::keep;
  const auto found = _filters.find(key);
  if (found == _filters.end()) return FilterAction::keep;
  for (const filterTag& tag : found->second)
    if (tag.appliesTo(method, status)) return tag.action;
  return FilterAction::keep;
}

bool EventFilters::ignoreMethodsFor(const Dictionary& keys) const {
  return std::ranges::none_of(keys, [&](const Dictionary::Entry& entry) {
    const auto found = _filters.find(std::string_view(entry.key));
    return found != _filters.end() && !std::ranges::all_of(found->second, [](const filterTag& tag) {
             return tag.method < 0 && tag.status < 0;
           });
  });
}

void EventFilters::apply(Dictionary& record) const {
  if (_numberOfFilters == 0) return;
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
