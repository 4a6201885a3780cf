#include "tools/storebag/lint/Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

#include "base/Text.h"
#include "platform/data/JSON.h"

namespace corvid::storebag {

namespace {

std::string_view wordFor(LintFinding::Kind kind) {
  return kind == LintFinding::Kind::wrong ? "WRONG" : "note";
}

// One line, whatever a key or a text brought with it.
std::string inOneLine(std::string_view text) {
  std::string line = replacingInvalidUTF8(text);
  std::ranges::replace_if(
      line, [](char c) { return c == 0x7f || static_cast<unsigned char>(c) < ' '; }, ' ');
  return line;
}

}  // namespace

void Report::wrong(std::string path, std::string what, std::string suggestion) {
  _wrongPaths.insert(path);
  _findings.push_back(
      {LintFinding::Kind::wrong, std::move(path), inOneLine(what), inOneLine(suggestion)});
}

void Report::note(std::string path, std::string what, std::string suggestion) {
  if (_wrongPaths.contains(path)) return;
  _findings.push_back(
      {LintFinding::Kind::note, std::move(path), inOneLine(what), inOneLine(suggestion)});
}

std::string join(const std::string& path, std::string_view key) {
  return path.empty() ? std::string(key) : fmt::format("{}.{}", path, key);
}

std::string at(const std::string& path, std::size_t index) {
  return fmt::format("{}[{}]", path, index);
}

bool isPlaceholder(const Value& value) {
  const std::string* text = value.string();
  return text && text->starts_with("${") && text->ends_with('}');
}

std::size_t count(std::span<const LintFinding> findings, LintFinding::Kind kind) {
  return static_cast<std::size_t>(std::ranges::count(findings, kind, &LintFinding::kind));
}

std::string textOf(std::span<const LintFinding> findings) {
  std::string lines;
  for (const auto& [kind, path, what, suggestion] : findings) {
    lines += fmt::format("{:5} {}: {}", wordFor(kind), path.empty() ? "storebag" : inOneLine(path),
                         what);
    if (!suggestion.empty()) lines += fmt::format("; {}", suggestion);
    lines += '\n';
  }
  return lines + fmt::format("{} wrong, {} notes\n", count(findings, LintFinding::Kind::wrong),
                             count(findings, LintFinding::Kind::note));
}

std::string jsonOf(std::span<const LintFinding> findings) {
  Array items;
  for (const auto& [kind, path, what, suggestion] : findings)
    items.push_back(Dictionary{{"kind", std::string(wordFor(kind))},
                               {"path", replacingInvalidUTF8(path)},
                               {"what", what},
                               {"suggestion", suggestion.empty() ? Value() : Value(suggestion)}});
  const auto number = [&](LintFinding::Kind kind) {
    return static_cast<std::int64_t>(count(findings, kind));
  };
  return writeJSON({{"findings", std::move(items)},
                    {"wrong", number(LintFinding::Kind::wrong)},
                    {"notes", number(LintFinding::Kind::note)}})
             .value_or("{}") +
         '\n';
}

}  // namespace corvid::storebag
