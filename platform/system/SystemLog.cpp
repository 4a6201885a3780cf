#include "platform/system/SystemLog.h"

#include <fmt/format.h>
#include <spdlog/formatter.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "base/Descriptor.h"
#include "base/LogFields.h"
#include "base/LogLine.h"
#include "base/UnixAddress.h"
#include "platform/system/JournalSocket.h"

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
    try {
      _sink->log(
          spdlog::details::log_msg(_program, spdlogLevel(level), {text.data(), text.size()}));
    } catch (const std::exception&) {
      // A full disk behind standard error is no reason to end the process.
    }
  }

 private:
  const std::string _program;
  std::unique_ptr<spdlog::sinks::sink> _sink;
};

class JournalSink final : public LogSink {
 public:
  JournalSink(std::string program, const std::string& socket)
      : _program(std::move(program)), _journal(socket) {}

  bool isThere() { return _journal.isThere(); }

  void write(LogLevel level, std::string_view text) override {
    std::string entry;
    entry.reserve(text.size() + 256);
    const auto append = [&](std::string_view name, std::string_view value) {
      if (!value.empty()) appendJournalField(entry, name, value);
    };
    appendJournalField(entry, "MESSAGE", text);
    append("PRIORITY", std::to_string(static_cast<int>(level)));
    append("SYSLOG_IDENTIFIER", _program);
    append("SYSLOG_FACILITY", "3");  // daemon
    const LogFields& fields = logFields();
    if (fields.subject) {
      append("CORVID_SESSION", std::to_string(fields.subject->session()));
      const std::string client = fields.subject->client();
      append("CORVID_CLIENT", logLine(client, client.size()));
    }
    append("CORVID_BACKEND", fields.backend);
    append("CORVID_REASON", fields.reason);
    append("MESSAGE_ID", fields.messageID);
    _journal.send(entry);
  }

 private:
  const std::string _program;
  JournalSocket _journal;
};

}  // namespace

LogDestination usualLogDestination() {
  if (isatty(STDERR_FILENO) == 1) return LogDestination::standardError;
  const Descriptor probe(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const bool hasSystemLog = probe && UnixAddress("/dev/log").connect(probe.get()) == 0;
  return hasSystemLog ? LogDestination::syslog : LogDestination::standardError;
}

std::unique_ptr<LogSink> openSystemLog(std::string program, LogDestination destination,
                                       const std::string& journalSocket) {
  if (destination == LogDestination::syslog && !journalSocket.empty()) {
    auto journal = std::make_unique<JournalSink>(program, journalSocket);
    if (journal->isThere()) return journal;
  }
  return std::make_unique<SpdlogSink>(std::move(program), destination);
}

}  // namespace corvid
