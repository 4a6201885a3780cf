// Storebags as authors have them: property lists, JSON, and signed envelopes of property lists.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid::storebag {

// What cannot be done: what, where and, if anything helps, what next. One line without a full stop.
struct CommandError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The bytes of a file. A CommandError names the file.
std::string bytesOf(const std::string& file);

// What is published, as it stands and as it is read.
struct Content {
  std::string bytes;        // of the envelope's "bag"; without an envelope the source's own
  Dictionary storebag;      // the same read
  bool isJSON = false;      // the source is JSON, which no device reads
  bool isEnvelope = false;  // whose signature nobody has looked at
};

// What `bytes` hold: a storebag as a property list in either form or as JSON ({"$data":…} and
// {"$date":…} as in tools/JSONValues.h), or an envelope of one. A CommandError begins with `name`,
// which tells where the bytes are from.
Content contentOf(std::string bytes, std::string_view name);

// Both in one.
Content contentOfFile(const std::string& file);

}  // namespace corvid::storebag
