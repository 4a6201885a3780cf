#include "platform/Random.h"

#include <fmt/format.h>

namespace corvid {

std::string uuidText(const UUIDBytes& uuid) {
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text += fmt::format("{:02X}", uuid[i]);
  }
  return text;
}

}  // namespace corvid
