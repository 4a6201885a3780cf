#include "platform/system/SettingsFile.h"

#include "base/Text.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A shell word: in single quotes everything stands for itself, elsewhere a backslash takes the next
// character as it is.
std::string unquoted(std::string_view word) {
  std::string text;
  char quote = 0;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (quote == 0 ? c == '"' || c == '\'' : c == quote)
      quote = quote == 0 ? c : '\0';
    else if (c == '\\' && quote != '\'' && i + 1 < word.size())
      text.push_back(word[++i]);
    else
      text.push_back(c);
  }
  return text;
}

}  // namespace

Result<std::string> readSettingsFile(const std::string& path) {
  return LocalFileSystem().readFile(path, PropertyListLimits().bytes);
}

Result<Dictionary> readDictionaryFile(const std::string& path) {
  const Result<std::string> content = readSettingsFile(path);
  if (!content) return content.failure();
  const Result<Value> value = parsePropertyList(content.value());
  if (!value) return Failure{path + ": " + value.failure().message};
  if (const Dictionary* dictionary = value.value().dictionary()) return *dictionary;
  return Failure{path + ": not a dictionary"};
}

std::optional<std::string> assignedValue(std::string_view text, std::string_view name) {
  std::string value;
  for (std::string_view line : split(text, '\n')) {
    line = trimmed(line);
    if (!line.starts_with(name) || line.substr(name.size(), 1) != "=") continue;
    value = unquoted(trimmed(line.substr(name.size() + 1)));
  }
  if (value.empty()) return std::nullopt;
  return value;
}

}  // namespace corvid
