#include "tools/CommandLine.h"

#include <fmt/format.h>

#include <charconv>

namespace corvid::tools {

CommandLine::CommandLine(const std::vector<std::string>& arguments,
                         const std::set<std::string>& valued, const std::set<std::string>& flags,
                         Options options) {
  bool mayBeOption = true;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (!mayBeOption || !argument.starts_with("--")) {
      _words.push_back(argument);
      if (options == Options::beforeFirstWord) mayBeOption = false;
      continue;
    }
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (argument == "--") {
      mayBeOption = false;
    } else if (argument == "--help") {
      throw HelpRequest();
    } else if (flags.contains(argument)) {
      _flags.insert(argument);
    } else if (flags.contains(name)) {
      throw UsageError(name + " takes no value");
    } else if (!valued.contains(name)) {
      throw UsageError("unknown option " + name);
    } else if (equals != std::string::npos) {
      _values[name] = argument.substr(equals + 1);
    } else if (i + 1 == arguments.size()) {
      throw UsageError(name + " lacks its value");
    } else {
      _values[name] = arguments[++i];
    }
  }
}

std::optional<std::string> CommandLine::text(const std::string& option) const {
  const auto found = _values.find(option);
  return found == _values.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::string> CommandLine::folder(const std::string& option) const {
  std::optional<std::string> path = text(option);
  if (path && path->empty()) throw UsageError(option + " takes a folder, not an empty text");
  return path;
}

std::optional<std::int64_t> CommandLine::number(const std::string& option, std::int64_t least,
                                                std::int64_t most) const {
  const auto given = text(option);
  if (!given) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(given->data(), given->data() + given->size(), value);
  if (error != std::errc() || end != given->data() + given->size() || value < least || value > most)
    throw UsageError(fmt::format("{} takes a whole number from {} to {}, not \"{}\"", option, least,
                                 most, *given));
  return value;
}

}  // namespace corvid::tools
