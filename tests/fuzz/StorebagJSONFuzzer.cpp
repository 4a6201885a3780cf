// Storebags as authors write them, in JSON above all: what can be signed means to a device what the
// author wrote, and what cannot is refused with a reason.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/data/PropertyList.h"
#include "tools/storebag/Bag.h"
#include "tools/storebag/Source.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvid::storebag;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  try {
    const Content content = contentOf(bytes, "storebag");
    const std::string bag = bagOf(content, "storebag");
    if (!content.isJSON) {
      if (!content.isEnvelope && bag != bytes) std::abort();
      return 0;
    }
    const auto read = corvid::parseDictionary(bag);
    if (!read || !(read.value() == content.storebag)) std::abort();
  } catch (const CommandError& error) {
    if (!std::string(error.what()).starts_with("storebag")) std::abort();
  }
  return 0;
}
