#include "gateway/StandardErrorLog.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

namespace corvid::fleet {

namespace {

std::string_view wordOf(LogLevel level) {
  switch (level) {
    case LogLevel::error: return "error";
    case LogLevel::warning: return "warning";
    case LogLevel::info: return "info";
    case LogLevel::debug: return "debug";
  }
  return "";
}

}  // namespace

StandardErrorLog::StandardErrorLog(std::string_view program)
    : _program(program), _isJournal(std::getenv("JOURNAL_STREAM") != nullptr) {}

void StandardErrorLog::write(LogLevel level, std::string_view text) {
  const std::string line = _isJournal ? fmt::format("<{}>{}\n", static_cast<int>(level), text)
                                      : fmt::format("{}: {}: {}\n", _program, wordOf(level), text);
  // One call a line, so that those of other threads do not come between. A line that nobody takes
  // is lost.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace corvid::fleet
