// Keeps what stands beside log lines.
#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "base/Log.h"
#include "base/LogFields.h"

namespace corvid {

// Installs itself for its lifetime, at level debug, in place of what was installed before.
class LoggedFields final : public LogSink {
 public:
  struct Line {
    std::string text;
    std::uint64_t session = 0;
    std::string client{};
    std::string backend{};
    std::string reason{};
    std::string messageID{};
  };

  LoggedFields() { installLog(this, LogLevel::debug); }
  ~LoggedFields() override { installLog(nullptr, LogLevel::error); }

  void write(LogLevel, std::string_view text) override {
    const LogFields& fields = logFields();
    Line line{.text = std::string(text),
              .backend = std::string(fields.backend),
              .reason = std::string(fields.reason),
              .messageID = std::string(fields.messageID)};
    if (fields.subject) {
      line.session = fields.subject->session();
      line.client = fields.subject->client();
    }
    const std::lock_guard lock(_mutex);
    _lines.push_back(std::move(line));
  }

  std::vector<Line> lines() const {
    const std::lock_guard lock(_mutex);
    return _lines;
  }
  // The last line that begins so; an empty one where there is none.
  Line last(std::string_view beginning) const {
    Line found;
    for (Line& line : lines())
      if (line.text.starts_with(beginning)) found = std::move(line);
    return found;
  }

 private:
  mutable std::mutex _mutex;
  std::vector<Line> _lines;
};

}  // namespace corvid
