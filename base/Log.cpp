#include "base/Log.h"

#include <algorithm>
#include <array>

#include "base/LogLine.h"

namespace corvid {

namespace detail {
std::atomic<int> logThreshold{-1};
}

namespace {
std::atomic<LogSink*> installedSink{nullptr};
}

void installLog(LogSink* sink, LogLevel threshold) {
  installedSink.store(sink);
  detail::logThreshold.store(sink ? static_cast<int>(threshold) : -1);
}

void detail::writeLog(LogLevel level, fmt::string_view format, fmt::format_args arguments) {
  LogSink* sink = installedSink.load();
  if (sink == nullptr) return;
  // What comes after the limit is counted and never stored.
  std::array<char, logLineLimit> text;
  std::size_t bytes = fmt::vformat_to_n(text.begin(), text.size(), format, arguments).size;
  std::string_view line(text.data(), std::min(bytes, text.size()));
  if (bytes == line.size() && line.ends_with('\n')) {
    line.remove_suffix(1);
    --bytes;
  }
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~'; };
  if (bytes == line.size() && std::ranges::all_of(line, isPlain))
    sink->write(level, line);
  else
    sink->write(level, logLine(line, bytes));
}

}  // namespace corvid
