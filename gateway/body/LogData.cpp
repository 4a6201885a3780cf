#include "gateway/body/LogData.h"

#include <cstddef>
#include <cstdint>

namespace corvid::fleet {

namespace {

constexpr std::string_view beginning = "bplist0";
constexpr std::size_t headerBytes = 8;
constexpr std::size_t trailerBytes = 32;

std::uint64_t bigEndian(std::string_view bytes) {
  std::uint64_t number = 0;
  for (const char c : bytes) number = number << 8 | static_cast<unsigned char>(c);
  return number;
}

}  // namespace

bool isLogData(std::string_view bytes) {
  if (!bytes.starts_with(beginning) || bytes.size() < headerBytes + trailerBytes) return false;
  // The last 26 bytes: two sizes of a byte each, then three numbers of eight.
  const std::size_t trailer = bytes.size() - trailerBytes;
  const auto offsetSize = static_cast<unsigned char>(bytes[trailer + 6]);
  const auto referenceSize = static_cast<unsigned char>(bytes[trailer + 7]);
  const std::uint64_t objects = bigEndian(bytes.substr(trailer + 8, 8));
  const std::uint64_t root = bigEndian(bytes.substr(trailer + 16, 8));
  const std::uint64_t table = bigEndian(bytes.substr(trailer + 24, 8));
  if (offsetSize < 1 || offsetSize > 8 || referenceSize < 1 || referenceSize > 8) return false;
  if (table < headerBytes || table > trailer || root >= objects) return false;
  if (objects > (trailer - table) / offsetSize) return false;
  const std::uint64_t at =
      bigEndian(bytes.substr(static_cast<std::size_t>(table + root * offsetSize), offsetSize));
  constexpr unsigned arrayKind = 0xA;
  return at >= headerBytes && at < table &&
         static_cast<unsigned char>(bytes[static_cast<std::size_t>(at)]) >> 4 == arrayKind;
}

}  // namespace corvid::fleet
