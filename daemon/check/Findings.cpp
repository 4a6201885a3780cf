#include "daemon/check/Findings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <utility>

#include "base/Text.h"
#include "base/Value.h"
#include "platform/data/JSON.h"

namespace corvid {

namespace {

std::string_view wordFor(ConfigFinding::Kind kind) {
  switch (kind) {
    case ConfigFinding::Kind::right: return "ok";
    case ConfigFinding::Kind::note: return "note";
    case ConfigFinding::Kind::wrong: return "WRONG";
  }
  return {};
}

// One line, whatever a file's name or text brought with it.
std::string inOneLine(std::string_view text) {
  std::string line(text);
  std::ranges::replace_if(
      line, [](char c) { return static_cast<unsigned char>(c) < ' '; }, ' ');
  return line;
}

// Nothing for a command that JSON cannot carry as it is.
Value sayable(const std::string& command) {
  const bool isText = !command.empty() && replacingInvalidUTF8(command) == command;
  return isText ? Value(command) : Value();
}

}  // namespace

void Findings::add(Kind kind, const std::string& path, std::string_view what,
                   const std::string& command) {
  const std::string prefix = path + ": ";
  if (what.starts_with(prefix)) what.remove_prefix(prefix.size());
  _all.push_back({kind, path, inOneLine(what), command});
}

std::size_t Findings::count(Kind kind) const {
  return static_cast<std::size_t>(std::ranges::count(_all, kind, &ConfigFinding::kind));
}

std::string Findings::text() const {
  std::string lines;
  for (const auto& [kind, path, what, command] : _all) {
    lines += fmt::format("{:5} {}: {}", wordFor(kind), inOneLine(path), what);
    if (!command.empty() && inOneLine(command) == command)
      lines += fmt::format("; run: {}", command);
    lines += '\n';
  }
  return lines + fmt::format("{} wrong, {} notes\n", count(Kind::wrong), count(Kind::note));
}

std::string Findings::json() const {
  Array findings;
  for (const auto& [kind, path, what, command] : _all)
    findings.push_back(Dictionary{{"kind", std::string(wordFor(kind))},
                                  {"path", replacingInvalidUTF8(path)},
                                  {"what", replacingInvalidUTF8(what)},
                                  {"command", sayable(command)}});
  return writeJSON({{"findings", std::move(findings)},
                    {"wrong", static_cast<std::int64_t>(count(Kind::wrong))},
                    {"notes", static_cast<std::int64_t>(count(Kind::note))}})
             .value_or("{}") +
         '\n';
}

}  // namespace corvid
