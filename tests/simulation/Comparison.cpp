#include "tests/simulation/Comparison.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "base/Describe.h"
#include "base/Reading.h"

namespace corvid::simulation {

namespace {

using Difference = std::optional<std::string>;

// Half a microsecond, and what adding of seconds since 1970 costs.
constexpr double tolerance = 1e-6;

std::string nameOf(const std::optional<std::string>& text) { return text.value_or("(none)"); }

Difference ofDictionaries(const Dictionary& expected, const Dictionary& seen,
                          const std::string& where) {
  for (const auto& [key, value] : expected) {
    const Value* const other = seen.find(key);
    if (!other) return fmt::format("{}: \"{}\" is missing", where, key);
    if (auto found = difference(value, *other, where + "." + key)) return found;
  }
  for (const auto& [key, value] : seen)
    if (!expected.contains(key))
      return fmt::format("{}: \"{}\" is too much: {}", where, key, description(value));
  return std::nullopt;
}

Difference ofArrays(const Array& expected, const Array& seen, const std::string& where) {
  if (expected.size() != seen.size())
    return fmt::format("{}: {} expected, {} seen", where, expected.size(), seen.size());
  for (std::size_t i = 0; i < expected.size(); ++i)
    if (auto found = difference(expected[i], seen[i], fmt::format("{}[{}]", where, i)))
      return found;
  return std::nullopt;
}

template <class T>
Difference ofOptional(const std::optional<T>& expected, const std::optional<T>& seen,
                      const std::string& where) {
  return difference(expected ? Value(*expected) : Value(), seen ? Value(*seen) : Value(), where);
}

Difference ofPosts(const Post& expected, const Post& seen) {
  if (expected.url != seen.url)
    return fmt::format("post to {} expected, to {} seen", expected.url, seen.url);
  const std::string where = "post to " + expected.url;
  if (expected.headers != seen.headers)
    return fmt::format("{}: headers {} expected, {} seen", where, expected.headers, seen.headers);
  return difference(expected.body, seen.body, where);
}

Difference ofPostLists(const Step& expected, const Step& seen, std::vector<std::size_t>& places) {
  std::set<std::size_t> left;
  for (std::size_t i = 0; i < seen.posts.size(); ++i) left.insert(i);
  std::map<std::string, std::size_t> latest;
  places.clear();
  for (const Post& post : expected.posts) {
    Difference first;
    const auto found = std::ranges::find_if(left, [&](std::size_t at) {
      auto its = ofPosts(post, seen.posts[at]);
      if (its && (!first || seen.posts[at].url == post.url)) first = its;
      return !its;
    });
    if (found == left.end())
      return first ? first
                   : fmt::format("post to {} is missing: {}", post.url, description(post.body));
    const auto [its, isFirst] = latest.try_emplace(post.backend, *found);
    if (!isFirst && its->second > *found)
      return fmt::format("posts of {} in another order", post.backend);
    its->second = *found;
    places.push_back(*found);
    left.erase(found);
  }
  if (left.empty()) return std::nullopt;
  const Post& post = seen.posts[*left.begin()];
  return fmt::format("post to {} is too much: {}", post.url, description(post.body));
}

Difference ofFetches(const Step& expected, const Step& seen) {
  if (expected.fetches == seen.fetches) return std::nullopt;
  const auto text = [](const std::vector<Fetch>& fetches) {
    std::string all;
    for (const Fetch& fetch : fetches)
      all += fmt::format("{} since {}; ", fetch.url, nameOf(fetch.ifModifiedSince));
    return all;
  };
  return fmt::format("fetches \"{}\" expected, \"{}\" seen", text(expected.fetches),
                     text(seen.fetches));
}

// By client, each in its order.
template <class T>
std::map<int, std::vector<const T*>> byClient(const std::vector<T>& all) {
  std::map<int, std::vector<const T*>> sorted;
  for (const T& one : all) sorted[one.client].push_back(&one);
  return sorted;
}

template <class T, class Compare>
Difference ofEachClient(const std::vector<T>& expected, const std::vector<T>& seen,
                        const char* what, Compare compare) {
  auto wanted = byClient(expected);
  auto found = byClient(seen);
  for (const auto& [client, its] : found) wanted[client];
  for (const auto& [client, its] : wanted) {
    const auto& others = found[client];
    for (std::size_t i = 0; i < std::min(its.size(), others.size()); ++i)
      if (auto difference = compare(*its[i], *others[i])) return difference;
    if (its.size() != others.size())
      return fmt::format("client {}: {} {} expected, {} seen", client, its.size(), what,
                         others.size());
  }
  return std::nullopt;
}

Difference ofAnswers(const Answer& expected, const Answer& seen) {
  if (expected.call == seen.call &&
      std::ranges::find(expected.anyOf, seen.anyOf.front()) != expected.anyOf.end())
    return std::nullopt;
  return fmt::format("client {}: {} answered \"{}\" expected, {} \"{}\" seen", expected.client,
                     expected.call, fmt::join(expected.anyOf, "\" or \""), seen.call,
                     seen.anyOf.front());
}

Difference ofDeliveries(const Delivery& expected, const Delivery& seen) {
  const std::string where = fmt::format("delivery to client {}", expected.client);
  if (auto found = ofOptional(expected.message, seen.message, where + ".message")) return found;
  if (auto found = ofOptional(expected.payload, seen.payload, where + ".payload")) return found;
  if (expected.category != seen.category || expected.type != seen.type)
    return fmt::format("{}: {}/{} expected, {}/{} seen", where, expected.category, expected.type,
                       seen.category, seen.type);
  return difference(expected.timestamp, seen.timestamp, where + ".timestamp");
}

template <class T>
Difference ofMaps(const T& expected, const T& seen, const char* what) {
  const auto at = [](const T& map, const auto& key) {
    const auto found = map.find(key);
    return found == map.end() ? std::string("(none)") : fmt::format("{}", found->second);
  };
  T all = expected;
  all.insert(seen.begin(), seen.end());
  for (const auto& [key, value] : all)
    if (at(expected, key) != at(seen, key))
      return fmt::format("{} {}: \"{}\" expected, \"{}\" seen", what, key, at(expected, key),
                         at(seen, key));
  return std::nullopt;
}

}  // namespace

Difference difference(const Value& expected, const Value& seen, const std::string& where) {
  const auto number = [](const Value& value) -> std::optional<double> {
    return value.boolean() ? std::nullopt : asNumber(&value);
  };
  if (expected.dictionary() && seen.dictionary())
    return ofDictionaries(*expected.dictionary(), *seen.dictionary(), where);
  if (expected.array() && seen.array()) return ofArrays(*expected.array(), *seen.array(), where);
  if (number(expected) && number(seen)) {
    if (std::abs(*number(expected) - *number(seen)) <= tolerance) return std::nullopt;
  } else if (expected == seen) {
    return std::nullopt;
  }
  return fmt::format("{}: {} expected, {} seen", where, description(expected), description(seen));
}

Difference difference(const Step& expected, const Step& seen, std::vector<std::size_t>& places) {
  if (auto found = ofFetches(expected, seen)) return found;
  if (auto found = ofPostLists(expected, seen, places)) return found;
  if (auto found = ofEachClient(expected.answers, seen.answers, "answers", ofAnswers)) return found;
  if (auto found = ofEachClient(expected.deliveries, seen.deliveries, "deliveries", ofDeliveries))
    return found;
  if (auto found = ofMaps(expected.states, seen.states, "states of client")) return found;
  return ofMaps(expected.sums, seen.sums, "ledger:");
}

}  // namespace corvid::simulation
