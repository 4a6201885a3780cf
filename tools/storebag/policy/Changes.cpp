#include "tools/storebag/policy/Changes.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace corvid::storebag {

namespace {

class Comparison {
 public:
  void compare(const std::string& path, const Dictionary& old, const Dictionary& now) {
    const std::string prefix = path.empty() ? path : path + ".";
    for (const auto& [key, value] : old) compare(prefix + key, &value, now.find(key));
    for (const auto& [key, value] : now)
      if (!old.contains(key)) compare(prefix + key, nullptr, &value);
  }

  std::vector<Change> changes() && { return std::move(_changes); }

 private:
  void compare(const std::string& path, const Value* old, const Value* now) {
    if (old && now) {
      if (*old == *now) return;
      if (old->dictionary() && now->dictionary())
        return compare(path, *old->dictionary(), *now->dictionary());
      if (old->array() && now->array()) return compare(path, *old->array(), *now->array());
    }
    _changes.push_back({path, old ? *old : Value(), now ? *now : Value()});
  }

  void compare(const std::string& path, const Array& old, const Array& now) {
    const auto [first, last] = CommonEnds(old, now);
    for (std::size_t at = first; at + last < std::max(old.size(), now.size()); ++at)
      compare(fmt::format("{}[{}]", path, at), at + last < old.size() ? &old[at] : nullptr,
              at + last < now.size() ? &now[at] : nullptr);
  }

  std::vector<Change> _changes;
};

}  // namespace

CommonEnds::CommonEnds(const Array& old, const Array& now) {
  const std::size_t shorter = std::min(old.size(), now.size());
  while (first < shorter && old[first] == now[first]) ++first;
  while (last < shorter - first && old[old.size() - 1 - last] == now[now.size() - 1 - last]) ++last;
}

std::vector<Change> changesBetween(const Dictionary& old, const Dictionary& now) {
  Comparison comparison;
  comparison.compare("", old, now);
  return std::move(comparison).changes();
}

}  // namespace corvid::storebag
