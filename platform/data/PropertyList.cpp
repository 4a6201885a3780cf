#include "platform/data/PropertyList.h"

#include <fmt/format.h>

#include "platform/data/PropertyListForms.h"

namespace corvid {

Result<Value> parsePropertyList(std::string_view bytes, const PropertyListLimits& limits) {
  if (bytes.empty()) return Failure{"The property list is empty"};
  if (bytes.size() > limits.bytes)
    return Failure{
        fmt::format("The property list has {} bytes, more than {}", bytes.size(), limits.bytes)};
  return bytes.starts_with(binaryPropertyListMagic) ? readBinaryPropertyList(bytes, limits)
                                                    : readXMLPropertyList(bytes, limits);
}

}  // namespace corvid
