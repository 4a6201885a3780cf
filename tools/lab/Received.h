// What the lab received: DIR/lab/received.jsonl, one JSON object a line.
#pragma once

#include <fstream>
#include <string>

#include "base/Mutex.h"
#include "base/Value.h"

namespace corvid::lab {

// Appends to a file; each line is written and flushed whole.
//
// Threads   any.
class ReceivedLog {
 public:
  // std::runtime_error where the file cannot be written.
  explicit ReceivedLog(const std::string& path);

  // Something that JSON cannot hold is written as {"error":...}.
  void append(const Dictionary& entry) EXCLUDES(_mutex);

 private:
  Mutex _mutex;
  std::ofstream _file GUARDED_BY(_mutex);
};

// One entry as a few lines for people: what came, how it was labelled, the events in it.
std::string summary(const Dictionary& entry);

}  // namespace corvid::lab
