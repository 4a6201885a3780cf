// Keeps log lines for a test.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/Log.h"

namespace corvid {

// Installs itself for its lifetime, at level debug.
class CapturedLog final : public LogSink {
 public:
  CapturedLog() { installLog(this, LogLevel::debug); }
  ~CapturedLog() override { installLog(nullptr, LogLevel::error); }

  void write(LogLevel level, std::string_view text) override {
    std::lock_guard lock(_mutex);
    _lines.emplace_back(level, text);
  }

  std::vector<std::pair<LogLevel, std::string>> lines() const {
    std::lock_guard lock(_mutex);
    return _lines;
  }
  // How often exactly this line was written at this level.
  int count(LogLevel level, std::string_view text) const {
    int found = 0;
    for (const auto& [lineLevel, line] : lines()) found += lineLevel == level && line == text;
    return found;
  }
  bool has(LogLevel level, std::string_view text) const { return count(level, text) > 0; }
  // Texts of all lines at this level, in order.
  std::vector<std::string> texts(LogLevel level) const {
    std::vector<std::string> texts;
    for (const auto& [lineLevel, line] : lines())
      if (lineLevel == level) texts.push_back(line);
    return texts;
  }
  bool anyContains(std::string_view fragment) const {
    for (const auto& [level, line] : lines())
      if (line.find(fragment) != std::string::npos) return true;
    return false;
  }
  void clear() {
    std::lock_guard lock(_mutex);
    _lines.clear();
  }

 private:
  mutable std::mutex _mutex;
  std::vector<std::pair<LogLevel, std::string>> _lines;
};

}  // namespace corvid
