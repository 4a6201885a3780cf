// The report server's addresses: each reads a post, writes down what came and answers.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/Received.h"

namespace corvid::lab {

// Each takes POST and appends {"server":NAME,"target":…,"headers":{…},"bytes":N,…} to the log,
// where N is the length of the body on the wire and a header that came twice holds its last value.
// A body that cannot be read is answered 400 and logged with "error". What was logged is also put
// into `entry`, where there is one.
//
// Threads   any.
class Collectors {
 public:
  // Files that are text of at most so many bytes are written down with their content.
  static constexpr std::size_t shownBytes = 4096;

  // `log` is borrowed.
  explicit Collectors(ReceivedLog& log) : _log(log) {}

  // A JSON object with an array of objects "events", gzip of 64 MiB at most or plain:
  // "message":{…}, which is logged too where it is other JSON. `server` is the name in the log.
  Answer events(const std::string& server, const Request& request,
                Dictionary* entry = nullptr) const;
  // A property list that holds an array: "logData":[…], dates and data in the JSON forms that
  // corvidctl has. The answer is a made-up place where it was put.
  Answer logData(const Request& request, Dictionary* entry = nullptr);
  // A file as gzip: "query":{NAME:VALUE,…} with the escapes resolved and
  // "file":{"size":N,"sha256":HEX,"content":TEXT}. The answer is {"success":true}.
  Answer upload(const Request& request, Dictionary* entry = nullptr) const;

 private:
  // Reads the body into the entry; the text says why that failed, and is empty where it did not.
  using Read = std::function<std::string(Dictionary& entry)>;
  Answer collect(const std::string& server, std::string_view what, const Request& request,
                 Dictionary* entry, const Read& read) const;

  ReceivedLog& _log;
  std::atomic<std::uint64_t> _logDataStored = 0;
};

}  // namespace corvid::lab
