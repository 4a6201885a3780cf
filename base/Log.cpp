#include "base/Log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <string>

#include "base/ActingUser.h"
#include "base/Complaint.h"
#include "base/LogLine.h"
#include "base/LogPace.h"
#include "base/Mutex.h"

namespace corvid {

namespace detail {
std::atomic<int> logThreshold{-1};
}

namespace {

std::atomic<LogSink*> installedSink{nullptr};

Mutex paceMutex;
LogPace complaintPace GUARDED_BY(paceMutex){LogPace::complaints};
LogPace pace GUARDED_BY(paceMutex){LogPace::others};

// What is put behind the line; nothing where it is left out.
std::optional<std::string> noteFor(LogLevel level, const char* kind, bool isComplaint) {
  const User user = actingUser();
  if (!user || level > LogLevel::warning) return "";
  const MutexLock lock(paceMutex);
  return (isComplaint ? complaintPace : pace).next({*user, kind}, std::chrono::steady_clock::now());
}

void write(LogLevel level, bool isComplaint, fmt::string_view format, fmt::format_args arguments) {
  LogSink* sink = installedSink.load();
  if (sink == nullptr) return;
  const std::optional<std::string> note = noteFor(level, format.data(), isComplaint);
  if (!note) return;
  // What comes after the limit is counted and never stored.
  std::array<char, logLineLimit> text;
  std::size_t bytes = fmt::vformat_to_n(text.begin(), text.size(), format, arguments).size;
  std::string_view line(text.data(), std::min(bytes, text.size()));
  if (bytes == line.size() && line.ends_with('\n')) {
    line.remove_suffix(1);
    --bytes;
  }
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~'; };
  if (!note->empty())
    sink->write(level, logLine(line, bytes) + *note);
  else if (bytes == line.size() && std::ranges::all_of(line, isPlain))
    sink->write(level, line);
  else
    sink->write(level, logLine(line, bytes));
}

}  // namespace

void installLog(LogSink* sink, LogLevel threshold) {
  {
    const MutexLock lock(paceMutex);
    complaintPace = LogPace(LogPace::complaints);
    pace = LogPace(LogPace::others);
  }
  installedSink.store(sink);
  detail::logThreshold.store(sink ? static_cast<int>(threshold) : -1);
}

LogLevel logLevel() { return static_cast<LogLevel>(detail::logThreshold.load()); }

void setLogLevel(LogLevel threshold) {
  if (installedSink.load()) detail::logThreshold = static_cast<int>(threshold);
}

void detail::writeLog(LogLevel level, fmt::string_view format, fmt::format_args arguments) {
  write(level, false, format, arguments);
}

void detail::writeComplaint(fmt::string_view format, fmt::format_args arguments) {
  write(LogLevel::warning, true, format, arguments);
}

}  // namespace corvid
