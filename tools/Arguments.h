// Typed reads from a JSON object that a person or a script has written.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid::tools {

// What was written asks for something impossible; what() says what is wrong with it.
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A key that is left out, or null, is an absent argument. A value of a wrong type is an InputError
// that names the key and what it must be; types are not converted.
class Arguments {
 public:
  // `object` is borrowed.
  explicit Arguments(const Dictionary& object) : _object(object) {}

  std::optional<Dictionary> dictionary(std::string_view key) const;
  std::optional<Array> array(std::string_view key) const;
  std::optional<bool> boolean(std::string_view key) const;
  std::optional<std::int64_t> integer(std::string_view key, std::int64_t least,
                                      std::int64_t most) const;
  std::optional<double> seconds(std::string_view key) const;
  std::optional<std::string> text(std::string_view key) const;

  // These must be there.
  std::string requiredText(std::string_view key) const;
  std::string requiredPath(std::string_view key) const;
  double requiredSeconds(std::string_view key) const;

 private:
  const Dictionary& _object;
};

}  // namespace corvid::tools
