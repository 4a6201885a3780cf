// Log lines on standard error, where a service manager or a person reads them.
#pragma once

#include <string_view>

#include "base/Log.h"

namespace corvid::fleet {

// One line a text. Where the journal reads along, each begins with its level as "<N>"; else with
// the program's name and the level's word.
//
// Threads   any.
class StandardErrorLog final : public LogSink {
 public:
  // `program` is borrowed.
  explicit StandardErrorLog(std::string_view program);
  void write(LogLevel level, std::string_view text) override;

 private:
  const std::string_view _program;
  const bool _isJournal;
};

}  // namespace corvid::fleet
