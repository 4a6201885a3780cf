#include <fmt/format.h>

#include <cstdio>
#include <optional>

#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tools/JSONValues.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Source.h"

namespace corvid::storebag {

int runShowCommand(const ShowOptions& options) {
  const Content content = contentAt(options.source);
  if (!options.asJSON) {
    fmt::print("{}", writeXMLPropertyList(content.storebag));
    return 0;
  }
  const Value json = tools::jsonFromValue(content.storebag);
  const std::optional<std::string> text = writeJSON(*json.dictionary());
  if (!text)
    throw CommandError(options.source.name +
                       ": JSON has no form for a number in it that is not finite");
  fmt::print("{}\n", indentedJSON(*text));
  return 0;
}

}  // namespace corvid::storebag
