// Whose the bytes of a growing log are.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "base/ActingUser.h"
#include "platform/FileSystem.h"

namespace corvid {

// Knows of a log, in the order in which it stands, which user wrote what. Where room is needed,
// whoever has most in it gives up the older half of that: so nobody who has less loses a line.
//
// Memory  Twelve bytes or so for each run of lines of one user.
// Not synchronised.
class LogShares {
 public:
  // Begins anew with a log of `bytes` that nobody is known to have written.
  void begin(std::string path, std::size_t bytes);
  // Whether the log is the one at `path` and has the length that is known of it.
  bool isOf(const std::string& path, std::size_t bytes) const {
    return _path == path && _bytes == bytes;
  }

  std::size_t bytes() const { return _bytes; }
  void add(User user, std::size_t bytes);
  // Takes out the older half of what the user has who has most. What it ends in the middle of ends
  // where `endOfLine` says, given from where on and where it must end at the latest.
  std::vector<ByteRange> removeOlderHalfOfMost(
      const std::function<std::size_t(std::size_t from, std::size_t latest)>& endOfLine);

 private:
  struct Run {
    User user;
    std::uint32_t bytes;
  };

  std::string _path;
  std::vector<Run> _runs;
  std::map<User, std::size_t> _bytesOf;
  std::size_t _bytes = 0;
};

}  // namespace corvid
