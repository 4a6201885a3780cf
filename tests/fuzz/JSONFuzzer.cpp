// JSON that nobody has checked: an object that can be read can be written, and reads as the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/data/JSON.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto read = corvid::parseJSON({reinterpret_cast<const char*>(data), size});
  if (!read) {
    if (read.failure().message.empty()) std::abort();
    return 0;
  }
  const corvid::Dictionary* object = read.value().dictionary();
  if (object == nullptr) return 0;
  const auto compact = corvid::writeJSON(*object);
  if (!compact) std::abort();
  for (const auto& text : {*compact, corvid::indentedJSON(*compact)}) {
    const auto again = corvid::parseJSON(text);
    if (!again || !(again.value() == read.value())) std::abort();
  }
  return 0;
}
