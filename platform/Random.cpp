#include "platform/Random.h"

#include "base/Text.h"

namespace corvid {

std::string uuidText(const UUIDBytes& uuid) {
  std::string text =
      upperCaseHexadecimal({reinterpret_cast<const char*>(uuid.data()), uuid.size()});
  for (const std::size_t dash : {8u, 13u, 18u, 23u}) text.insert(dash, 1, '-');
  return text;
}

}  // namespace corvid
