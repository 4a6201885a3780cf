// What the unavoidable steps cost by themselves, measured beside the daemon on the same bytes.
#pragma once

#include <string>

namespace corvid::bench {

struct Reference {
  double gzipBatchMicros = 0;    // zlib level -1 on a batch, an event
  double gzipLoneMicros = 0;     // on a message of one record
  double jsonMicros = 0;         // the JSON writer, a record
  double postMicros = 0;         // CPU of a blocking libcurl POST of a lone message, TLS, reused
  double postLatencyMicros = 0;  // its median duration
};

// `batch` is a posted message of `events` records, `lone` one of a single record, both as JSON.
Reference measureReference(const std::string& batch, int events, const std::string& lone,
                           const std::string& url, const std::string& caFile);

}  // namespace corvid::bench
