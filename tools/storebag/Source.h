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

// Where a storebag is: a file, or an https URL, which is fetched as a device would. Text with "://"
// is a URL.
struct Location {
  std::string name;
  std::string caFile{};  // PEM: trusted instead of the system's certificates; empty: those
};

// What is there.
struct Source {
  std::string name;  // for people
  std::string bytes;
  int status = 0;  // of the answer; 0 of a file
};

// A URL brought no answer.
struct UnreachableError : CommandError {
  UnreachableError(const std::string& name, const std::string& why)
      : CommandError(name + ": " + why), detail(why) {}
  std::string detail;
};

// A CommandError where there is nothing to read; a tools::InputError for a URL that is not https.
Source read(const Location& location);

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
Content contentAt(const Location& location);
Content contentOfFile(const std::string& file);

}  // namespace corvid::storebag
