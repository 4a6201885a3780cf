// Receives posted events and writes down what came.
#pragma once

#include <string>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/ReceivedLog.h"

namespace corvid::lab {

// Accepts POST with a JSON message, gzip or plain, and appends
// {"server":NAME,"target":…,"headers":{…},"bytes":N,"message":{…}} to the log, where N is the
// length of the body on the wire. A body that cannot be read is answered 400 and logged with
// "error".
//
// Threads   any.
class EventCollector {
 public:
  // `log` is borrowed.
  EventCollector(std::string name, ReceivedLog& log) : _name(std::move(name)), _log(log) {}

  Answer answer(const Request& request) const;

 private:
  const std::string _name;
  ReceivedLog& _log;
};

// The headers as a dictionary; a name that came twice holds its last value.
Dictionary headerDictionary(const HTTPHeaders& headers);

}  // namespace corvid::lab
