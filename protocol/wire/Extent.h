// What property values take on the wire.
#pragma once

#include <cstddef>
#include <string_view>

#include "base/Value.h"

namespace corvid::wire {

// Whether a value may cross the connection.
enum class Fitness { fits, tooDeep, tooLarge };

// What a value takes on the wire. Its texts and dates are taken for valid: whoever made it checked
// them.
struct Extent {
  static constexpr std::size_t wordBytes = 8;

  std::size_t words = 0;
  std::size_t values = 0;
  Fitness fitness = Fitness::fits;  // the first rule that the value breaks

  // `depth`: of the container itself, in what it is part of.
  void add(const Dictionary& dictionary, std::size_t depth = 1);
  void add(const Array& array, std::size_t depth = 1);
  void addText(std::string_view text) { addBytes(text.size() + 1); }
  std::size_t bytes() const { return words * wordBytes; }

 private:
  void add(const Value& value, std::size_t depth);
  void addBytes(std::size_t bytes);
  void addElements(std::size_t count, std::size_t depth);
  void fail(Fitness reason);
};

}  // namespace corvid::wire
