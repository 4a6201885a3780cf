// The filters of a storebag entry: which keys of a record leave the device, and in which form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/Value.h"
#include "status/Decision.h"

namespace corvid {

enum class FilterAction : std::int32_t { keep = 0, remove = 1, digest = 2 };

// What one filter asks for; negative numbers apply to every method or status.
struct filterTag {
  std::int32_t method = -1;
  std::int32_t status = -1;
  FilterAction action = FilterAction::keep;

  bool appliesTo(std::int32_t eventMethod, std::int32_t eventStatus) const {
    return (method < 0 || method == eventMethod) && (status < 0 || status == eventStatus);
  }
};

// What a filter of a storebag asks for. An action that is none of the known ones keeps.
filterTag tagFor(const Dictionary& filter);

// A set of filters, looked up by key without regard to case: the cost of a record does not grow
// with the number of filters. Of the filters that apply to a key only the first counts.
//
// Threads: reading from any thread; not synchronised against assignment.
class EventFilters {
 public:
  EventFilters() = default;
  // One filter an item, in the array's order; an item without a key matches nothing.
  explicit EventFilters(const Array& filters);

  // As many as the array had items.
  std::size_t numberOfFilters() const { return _numberOfFilters; }

  // Whether a filter is about one of these keys.
  bool mention(const Dictionary& keys) const;
  // Whether what becomes of these keys is the same in records of every method and status.
  bool ignoreMethodsFor(const Dictionary& keys) const;

  // Removes and replaces values of `record` in place. The record's "_method" and "_status" decide
  // which filters apply; they are 0 where they are missing.
  // `changed` hears which keys, and may be null.
  void apply(Dictionary& record, KeysChanged* changed = nullptr) const;
  // The same to a part of a record, whose method and status are these.
  void apply(Dictionary& part, std::int32_t method, std::int32_t status,
             KeysChanged* changed) const;

 private:
  struct FoldingHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view key) const;
  };
  struct FoldingEqual {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
  };

  using Filters =
      std::unordered_map<std::string, std::vector<filterTag>, FoldingHash, FoldingEqual>;

  Filters::const_iterator filtersFor(std::string_view key) const;
  FilterAction actionFor(std::string_view key, std::int32_t method, std::int32_t status) const;

  std::size_t _numberOfFilters = 0;
  std::uint64_t _marks = 0;  // a bit for each key: most look-ups end at it
  Filters _filters;
};

}  // namespace corvid
