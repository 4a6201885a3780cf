// Options and words of a command line, the same way for every tool.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvid::tools {

// The person wrote something that cannot be meant; what() says what and how it is written.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
// The person asked for help.
struct HelpRequest {};

// Exit status for a command line that cannot be used, as in <sysexits.h>.
inline constexpr int exitUsage = 64;

// An option's value is the next argument, or follows the option and a "=". Of several of one kind
// the last counts. "--" ends the options. Everything else is a word.
class CommandLine {
 public:
  // Which arguments may be options.
  enum class Options { all, beforeFirstWord };

  // `valued` options take a value, `flags` take none; both are written with "--". "--help" is a
  // HelpRequest, any other option a UsageError.
  CommandLine(const std::vector<std::string>& arguments, const std::set<std::string>& valued,
              const std::set<std::string>& flags, Options options = Options::all);

  const std::vector<std::string>& words() const { return _words; }
  bool has(const std::string& flag) const { return _flags.contains(flag); }
  std::optional<std::string> text(const std::string& option) const;
  // The same, refusing an empty text.
  std::optional<std::string> folder(const std::string& option) const;
  // A whole number from `least` to `most`.
  std::optional<std::int64_t> number(const std::string& option, std::int64_t least,
                                     std::int64_t most) const;

 private:
  std::vector<std::string> _words;
  std::map<std::string, std::string> _values;
  std::set<std::string> _flags;
};

}  // namespace corvid::tools
