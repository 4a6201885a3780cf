#include "tools/corvidctl/LineReader.h"

namespace corvid::ctl {

bool LineReader::next() {
  using Traits = std::istream::traits_type;
  _line.clear();
  _isTooLong = false;
  std::streambuf& bytes = *_input.rdbuf();
  Traits::int_type byte = bytes.sbumpc();
  if (Traits::eq_int_type(byte, Traits::eof())) return false;
  ++_number;
  for (; !Traits::eq_int_type(byte, Traits::eof()); byte = bytes.sbumpc()) {
    if (Traits::to_char_type(byte) == '\n') break;
    if (_line.size() < _longest)
      _line.push_back(Traits::to_char_type(byte));
    else
      _isTooLong = true;
  }
  return true;
}

}  // namespace corvid::ctl
