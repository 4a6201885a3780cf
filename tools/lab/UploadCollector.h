// Receives uploaded files and writes down what came.
#pragma once

#include <cstddef>
#include <string>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/ReceivedLog.h"

namespace corvid::lab {

// Accepts POST with a gzip body and appends
// {"server":"upload","target":…,"headers":{…},"bytes":N,"query":{NAME:VALUE,…},
// "file":{"size":N,"sha256":HEX,"content":TEXT}} to the log: the query's values with their escapes
// resolved, the file unpacked, and its content only where that is text of at most shownBytes. The
// answer is {"success":true}. A body that cannot be unpacked is answered 400 and logged with
// "error".
//
// Threads   any.
class UploadCollector {
 public:
  static constexpr std::size_t shownBytes = 4096;

  // `log` is borrowed.
  explicit UploadCollector(ReceivedLog& log) : _log(log) {}

  Answer answer(const Request& request) const;

 private:
  ReceivedLog& _log;
};

}  // namespace corvid::lab
