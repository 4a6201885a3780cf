// `corvidctl session`: calls from standard input, one JSON object a line, outcomes to standard
// output, one JSON object a line.
#pragma once

#include <cstddef>
#include <istream>
#include <string>

namespace corvid::ctl {

// Reads `input` to its end. The exit status: 0, or 1 where there is no daemon. A lost connection
// prints {"event":"invalidated"} and ends the process with status 1 at once, since the loop may be
// waiting for input that never comes.
int runSessionCommand(const std::string& root, std::istream& input);

// Lines of an input, however long they are: keeps at most one line of at most `longest` bytes in
// memory.
class LineReader {
 public:
  // `input` is borrowed.
  LineReader(std::istream& input, std::size_t longest) : _input(input), _longest(longest) {}

  // Reads the next line, the last one also without its end; false where there is none.
  bool next();

  // Of the line that was read: its text without the end, its number from 1 on, and whether it is
  // longer than `longest` and the text only its beginning.
  const std::string& line() const { return _line; }
  std::size_t number() const { return _number; }
  bool isTooLong() const { return _isTooLong; }

 private:
  std::istream& _input;
  const std::size_t _longest;
  std::string _line;
  std::size_t _number = 0;
  bool _isTooLong = false;
};

}  // namespace corvid::ctl
