// What an operator sees of a daemon: the real corvidctl, and what its answers hold.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "tests/support/ToolProcess.h"

namespace corvid {

// Looks at the daemon below a root. An answer that cannot be had, or is not what its command
// promises, fails the test and is empty.
//
// Threads: any.
class Operator {
 public:
  explicit Operator(std::string root) : _watched(std::move(root)) {}

  ToolResult ctl(std::vector<std::string> arguments) const;
  Dictionary status() const;
  Dictionary ledger() const;
  std::vector<Dictionary> sessions(std::vector<std::string> arguments = {}) const;
  std::vector<Dictionary> explain(std::vector<std::string> arguments = {}) const;
  // The value of the metric of that name and labels, such as `corvid_sessions`; -1 without it.
  std::int64_t metric(std::string_view name) const;

  static Dictionary objectIn(std::string_view json);
  static const Dictionary& backendOf(const Dictionary& of, std::size_t at = 0);
  // Whether each event that a ledger accepted is somewhere in it, once.
  static bool adds(const Dictionary& ledger);

 private:
  const std::string _watched;
};

}  // namespace corvid
