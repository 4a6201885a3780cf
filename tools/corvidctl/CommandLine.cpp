#include "tools/corvidctl/CommandLine.h"

#include <fmt/format.h>

#include <charconv>

namespace corvid::ctl {

CommandLine::CommandLine(const std::vector<std::string>& arguments,
                         const std::set<std::string>& valued, const std::set<std::string>& flags) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (!word.starts_with("--")) {
      _words.push_back(word);
    } else if (flags.contains(word)) {
      _flags.insert(word);
    } else if (!valued.contains(word)) {
      throw UsageError("unknown option " + word);
    } else if (i + 1 == arguments.size()) {
      throw UsageError(word + " lacks its value");
    } else {
      _values[word] = arguments[++i];
    }
  }
}

std::optional<std::string> CommandLine::text(const std::string& option) const {
  const auto found = _values.find(option);
  return found == _values.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::int64_t> CommandLine::number(const std::string& option, std::int64_t least,
                                                std::int64_t most) const {
  const auto given = text(option);
  if (!given) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(given->data(), given->data() + given->size(), value);
  if (error != std::errc() || end != given->data() + given->size() || value < least || value > most)
    throw UsageError(
        fmt::format("{} takes a whole number from {} to {}, not {}", option, least, most, *given));
  return value;
}

}  // namespace corvid::ctl
