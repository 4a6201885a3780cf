// Storebags as authors write them, in JSON above all: what can be signed means to a device what the
// author wrote, and what cannot is refused with a reason. Whatever lint finds, it has a line and a
// place in valid JSON for each.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tools/storebag/Bag.h"
#include "tools/storebag/Lint.h"
#include "tools/storebag/Source.h"

namespace {

void lintIt(const corvid::Value& storebag) {
  const auto findings = corvid::storebag::lint(storebag);
  const std::string lines = corvid::storebag::textOf(findings);
  const auto ends = static_cast<std::size_t>(std::ranges::count(lines, '\n'));
  if (ends != findings.size() + 1) std::abort();
  const auto json = corvid::parseJSON(corvid::storebag::jsonOf(findings));
  const corvid::Value* listed = json ? json.value().dictionary()->find("findings") : nullptr;
  if (!listed || !listed->array() || listed->array()->size() != findings.size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace corvid::storebag;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  try {
    const Content content = contentOf(bytes, "storebag");
    lintIt(content.storebag);
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
