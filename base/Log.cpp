#include "base/Log.h"

#include <iterator>

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
  fmt::memory_buffer text;
  fmt::vformat_to(std::back_inserter(text), format, arguments);
  std::string_view line(text.data(), text.size());
  if (line.ends_with('\n')) line.remove_suffix(1);
  sink->write(level, line);
}

}  // namespace corvid
