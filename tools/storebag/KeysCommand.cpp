#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "config/StorebagKeys.h"
#include "platform/data/JSON.h"
#include "tools/storebag/Commands.h"

namespace corvid::storebag {

namespace {

// Marks of the page that has the same texts.
std::string plain(std::string_view text) {
  std::string result(text);
  std::erase(result, '`');
  return result;
}

std::string withoutArticle(std::string_view type) {
  return std::string(type.starts_with("a") && type.find(' ') != type.npos
                         ? type.substr(type.find(' ') + 1)
                         : type);
}

void printText() {
  for (const StorebagKey& key : storebagKeys())
    fmt::print("{}\n    {}, since {}: {}\n    without it: {}\n", pathOf(key),
               withoutArticle(textOf(key.type)), key.since, plain(key.effect), plain(key.without));
}

void printJSON() {
  Array keys;
  for (const StorebagKey& key : storebagKeys())
    keys.push_back(Dictionary{{"path", pathOf(key)},
                              {"type", withoutArticle(textOf(key.type))},
                              {"effect", plain(key.effect)},
                              {"without", plain(key.without)},
                              {"since", std::string(key.since)},
                              {"required", key.isRequired}});
  fmt::print("{}\n", writeJSON({{"keys", std::move(keys)}}).value_or("{}"));
}

// The names of a place's keys in lines of a terminal's width, set in.
std::string namesAt(StorebagPlace place) {
  constexpr std::size_t width = 80;
  std::string lines;
  std::string line;
  for (const StorebagKey& key : storebagKeysAt(place)) {
    if (!line.empty() && line.size() + key.name.size() + 2 > width)
      lines += std::exchange(line, {}) + '\n';
    line.append(line.empty() ? "    " : " ").append(key.name);
  }
  return lines + line + '\n';
}

}  // namespace

std::string keysForHelp() {
  std::string text;
  for (std::size_t at = 0; at < storebagPlaceCount; ++at) {
    const auto place = static_cast<StorebagPlace>(at);
    if (storebagKeysAt(place).empty()) continue;
    const std::string_view path = pathOf(place);
    text += fmt::format("  {}\n{}", path.empty() ? "the storebag" : path, namesAt(place));
  }
  return text;
}

int runKeysCommand(bool asJSON) {
  asJSON ? printJSON() : printText();
  return 0;
}

}  // namespace corvid::storebag
