// Keeps the RPC library from writing to standard error on the thread that holds one, on its stack.
#pragma once

#include <kj/exception.h>

#include "base/Log.h"

namespace corvid::wire {

class QuietLibrary final : public kj::ExceptionCallback {
 public:
  void logMessage(kj::LogSeverity, const char*, int, int, kj::String&& text) override {
    logDebug("RPC library: {}", text.cStr());
  }
  // Nobody reads the traces, and unwinding the stack for them is slow.
  StackTraceMode stackTraceMode() override { return StackTraceMode::NONE; }
};

}  // namespace corvid::wire
