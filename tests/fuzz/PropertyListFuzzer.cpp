// Property lists that nobody has checked: whatever can be read can be written in both forms and is
// then read as the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/data/PropertyList.h"
#include "tests/fuzz/Require.h"

namespace {

using corvid::Value;
using corvid::fuzz::require;

// Written, read and written again, the text stays the same. (Values cannot be compared: one that is
// not a number differs from itself.)
void checkForm(std::string (*write)(const Value&), const Value& value) {
  const std::string first = write(value);
  const auto again = corvid::parsePropertyList(first);
  require(static_cast<bool>(again));
  const std::string second = write(again.value());
  if (second == first) return;
  // Characters that XML cannot hold are replaced, by which keys may have become equal.
  require(first.find("\xef\xbf\xbd") != std::string::npos && second.size() < first.size());
  const auto third = corvid::parsePropertyList(second);
  require(third && write(third.value()) == second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  corvid::PropertyListLimits limits;
  limits.bytes = 64 << 10;  // well below what the second reading allows
  limits.values = 10'000;
  const auto read = corvid::parsePropertyList({reinterpret_cast<const char*>(data), size}, limits);
  if (!read) {
    if (read.failure().message.empty()) std::abort();
    return 0;
  }
  checkForm(corvid::writeBinaryPropertyList, read.value());
  // A date alone may be one that XML cannot write.
  if (!read.value().date()) checkForm(corvid::writeXMLPropertyList, read.value());
  return 0;
}
