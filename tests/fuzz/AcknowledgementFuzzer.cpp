// The reader of acknowledgements looks at two bytes and at nothing else.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "backends/dashboard/TagReportingPacket.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string datagram(reinterpret_cast<const char*>(data), size);
  const auto event = corvid::acknowledgedEvent(datagram);
  if (event.has_value() != (size >= 62)) std::abort();
  if (event && *event != data[60] * 256 + data[61]) std::abort();
  return 0;
}
