#include "bench/CallgrindProfile.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace corvid::bench {

namespace {

// "(3) /usr/lib/libz.so.1" the first time, "(3)" from then on.
std::string nameBehind(std::string_view text, std::map<std::string, std::string>& names) {
  const std::size_t end = text.find(')');
  if (!text.starts_with('(') || end == std::string_view::npos) return std::string(text);
  std::string& name = names[std::string(text.substr(0, end))];
  if (text.size() > end + 2) name = text.substr(text.find_last_of(" /") + 1);
  return name;
}

}  // namespace

std::map<std::string, std::int64_t> instructionsIn(std::istream& profile) {
  std::map<std::string, std::int64_t> instructions;
  std::map<std::string, std::string> names;
  std::string line, object;
  bool isCall = false;  // the cost that follows is that of what was called, counted there
  bool hasEvents = false;
  while (std::getline(profile, line)) {
    const std::string_view text = line;
    if (text.starts_with("events: Ir")) hasEvents = true;
    if (text.starts_with("ob=")) object = nameBehind(text.substr(3), names);
    if (text.starts_with("cob=")) nameBehind(text.substr(4), names);
    if (text.starts_with("calls=")) isCall = true;
    if (text.empty() || std::string_view("+-*0123456789").find(text[0]) == std::string_view::npos)
      continue;
    const std::size_t blank = text.find(' ');
    std::int64_t cost = 0;
    if (blank == std::string_view::npos ||
        std::from_chars(text.data() + blank + 1, text.data() + text.size(), cost).ec != std::errc())
      throw std::runtime_error(fmt::format("no cost of callgrind's: {}", text));
    if (!std::exchange(isCall, false)) instructions[object] += cost;
  }
  if (!hasEvents) throw std::runtime_error("callgrind has written no profile");
  return instructions;
}

}  // namespace corvid::bench
