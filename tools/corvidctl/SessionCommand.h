// `corvidctl session`: calls from standard input, one JSON object a line, outcomes to standard
// output, one JSON object a line.
#pragma once

#include <cstddef>
#include <istream>
#include <optional>
#include <string>

namespace corvid::ctl {

// Reads `input` to its end. The exit status: 0, or 1 where there is no daemon. A lost connection
// prints {"event":"invalidated"} and ends the process with status 1 at once, since the loop may be
// waiting for input that never comes.
int runSessionCommand(const std::string& root, std::istream& input);

struct Line {
  std::string text;  // without its end
  bool isTooLong;    // the text is only its beginning
};

// The next line, the last one also without its end; nothing where there is none. Of a line however
// long at most `longest` bytes are kept.
std::optional<Line> readLine(std::istream& input, std::size_t longest);

}  // namespace corvid::ctl
