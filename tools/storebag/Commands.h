// The commands of corvid-storebag, and what they are given.
//
// Each gives the exit status of the program and prints to standard output. What cannot be done is a
// CommandError, exit status 1; what cannot be meant is a tools::InputError, exit status 64.
#pragma once

#include <string>

namespace corvid::storebag {

struct ShowOptions {
  std::string source;  // a file
  bool asJSON = false;
};
// `show`: the content, as a property list in XML or as JSON.
int runShowCommand(const ShowOptions& options);

}  // namespace corvid::storebag
