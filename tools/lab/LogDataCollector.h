// Receives log data and writes down what came.
#pragma once

#include <atomic>
#include <cstdint>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/ReceivedLog.h"

namespace corvid::lab {

// Accepts POST with a property list that holds an array, appends
// {"server":"logData","target":…,"headers":{…},"bytes":N,"logData":[…]} to the log, dates and data
// in the JSON forms that corvidctl has, and answers with a made-up place where it was put. A body
// that cannot be read is answered 400 and logged with "error".
//
// Threads   any.
class LogDataCollector {
 public:
  // `log` is borrowed.
  explicit LogDataCollector(ReceivedLog& log) : _log(log) {}

  Answer answer(const Request& request);

 private:
  ReceivedLog& _log;
  std::atomic<std::uint64_t> _stored = 0;
};

}  // namespace corvid::lab
