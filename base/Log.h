// The system log. Every text is one whole literal in fmt form; a suppressed level costs one
// branch and formats nothing. Errors and warnings of threads that work for a user (ActingUser.h)
// are told once a minute where that user's clients cause the same one many times (LogPace.h).
//
// Threads: logging from any thread; installLog before the first thread and after the last.
#pragma once

#include <fmt/format.h>

#include <atomic>
#include <string_view>

namespace corvid {

// The values are those of syslog.
enum class LogLevel : int { error = 3, warning = 4, info = 6, debug = 7 };

// Where log lines go. write() is called from any thread, one finished line a call (base/LogLine.h),
// without a line end; lines of one thread keep their order.
class LogSink {
 public:
  virtual ~LogSink() = default;
  virtual void write(LogLevel level, std::string_view text) = 0;
};

// Sends lines up to and including `threshold` to `sink` (borrowed; nullptr drops everything).
void installLog(LogSink* sink, LogLevel threshold);

// The level from which on lines are written; any thread.
LogLevel logLevel();
void setLogLevel(LogLevel threshold);

namespace detail {
extern std::atomic<int> logThreshold;
void writeLog(LogLevel level, fmt::string_view format, fmt::format_args arguments);
template <class... A>
void log(LogLevel level, fmt::format_string<A...> format, const A&... arguments) {
  if (static_cast<int>(level) <= logThreshold.load(std::memory_order_relaxed)) [[unlikely]]
    writeLog(level, format, fmt::make_format_args(arguments...));
}
}  // namespace detail

template <class... A>
void logError(fmt::format_string<const A&...> format, const A&... arguments) {
  detail::log<const A&...>(LogLevel::error, format, arguments...);
}
template <class... A>
void logWarning(fmt::format_string<const A&...> format, const A&... arguments) {
  detail::log<const A&...>(LogLevel::warning, format, arguments...);
}
template <class... A>
void logInfo(fmt::format_string<const A&...> format, const A&... arguments) {
  detail::log<const A&...>(LogLevel::info, format, arguments...);
}
template <class... A>
void logDebug(fmt::format_string<const A&...> format, const A&... arguments) {
  detail::log<const A&...>(LogLevel::debug, format, arguments...);
}

}  // namespace corvid
