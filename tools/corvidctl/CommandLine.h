// Options and words of a command line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvid::ctl {

// The person wrote something that cannot be meant; what() says what and how it is written.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class CommandLine {
 public:
  // `valued` options take the next word as their value, `flags` take none; both are written with
  // "--". Everything else is a word. Anything unknown is a UsageError.
  CommandLine(const std::vector<std::string>& arguments, const std::set<std::string>& valued,
              const std::set<std::string>& flags);

  const std::vector<std::string>& words() const { return _words; }
  bool has(const std::string& flag) const { return _flags.contains(flag); }
  std::optional<std::string> text(const std::string& option) const;
  // A whole number from `least` to `most`.
  std::optional<std::int64_t> number(const std::string& option, std::int64_t least,
                                     std::int64_t most) const;

 private:
  std::vector<std::string> _words;
  std::map<std::string, std::string> _values;
  std::set<std::string> _flags;
};

}  // namespace corvid::ctl
