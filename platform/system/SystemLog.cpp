#include "platform/system/SystemLog.h"

#include <fmt/format.h>
#include <spdlog/formatter.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <syslog.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace corvid {

namespace {

spdlog::level::level_enum spdlogLevel(LogLevel level) {
  switch (level) {
    case LogLevel::error: return spdlog::level::err;
    case LogLevel::warning: return spdlog::level::warn;
    case LogLevel::info: return spdlog::level::info;
    case LogLevel::debug: return spdlog::level::debug;
  }
  return spdlog::level::debug;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

// U+0080 to U+009F are control characters too: terminals act on them.
bool isSecondControl(std::string_view text, std::size_t at) {
  return text[at] == '\xc2' && at + 1 < text.size() &&
         static_cast<unsigned char>(text[at + 1]) < 0xa0;
}

std::string escapingControls(std::string_view text) {
  std::string escaped;
  escaped.reserve(text.size() + 16);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\n')
      escaped += "\\n";
    else if (c == '\t')
      escaped += "\\t";
    else if (isControl(c))
      escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
    else if (isSecondControl(text, i))
      escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[++i]));
    else
      escaped.push_back(c);
  }
  return escaped;
}

class SpdlogSink final : public LogSink {
 public:
  SpdlogSink(std::string program, LogDestination destination) : _program(std::move(program)) {
    if (destination == LogDestination::syslog) {
      _sink = std::make_unique<spdlog::sinks::syslog_sink_mt>(_program, LOG_PID, LOG_DAEMON, false);
      return;
    }
    _sink = std::make_unique<spdlog::sinks::stderr_sink_mt>();
    std::string name = _program;  // with each % doubled
    for (auto at = name.find('%'); at != std::string::npos; at = name.find('%', at + 2))
      name.insert(at, 1, '%');
    _sink->set_formatter(std::make_unique<spdlog::pattern_formatter>("%Y-%m-%d %H:%M:%S.%e %l " +
                                                                     name + "[%P]: %v"));
  }

  void write(LogLevel level, std::string_view text) override {
    const std::string line = escapingControls(text);
    try {
      _sink->log(
          spdlog::details::log_msg(_program, spdlogLevel(level), {line.data(), line.size()}));
    } catch (const std::exception&) {
      // A full disk behind standard error is no reason to end the process.
    }
  }

 private:
  const std::string _program;
  std::unique_ptr<spdlog::sinks::sink> _sink;
};

}  // namespace

std::unique_ptr<LogSink> openSystemLog(std::string program, LogDestination destination) {
  return std::make_unique<SpdlogSink>(std::move(program), destination);
}

}  // namespace corvid
