// Text for a monitoring system, as OpenMetrics has it.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>

namespace corvid {

// One metric after the other, each begun before its values; names and words need no escapes.
class MetricsText {
 public:
  // What follows belongs to `name`, which must outlive that.
  void begin(std::string_view name, std::string_view type, std::string_view help) {
    _name = name;
    fmt::format_to(std::back_inserter(_text), "# TYPE {} {}\n# HELP {} {}\n", name, type, name,
                   help);
  }
  void add(std::string_view ending, std::uint64_t value) {
    fmt::format_to(std::back_inserter(_text), "{}{} {}\n", _name, ending, value);
  }
  void add(std::string_view ending, std::string_view label, std::string_view word,
           std::uint64_t value) {
    fmt::format_to(std::back_inserter(_text), "{}{}{{{}=\"{}\"}} {}\n", _name, ending, label, word,
                   value);
  }
  std::string end() && { return _text + "# EOF\n"; }

 private:
  std::string _text;
  std::string_view _name;
};

}  // namespace corvid
