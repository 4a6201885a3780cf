// Envelopes that nobody has checked: none but those that carry the signed storebag may be opened.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "config/StorebagFetch.h"
#include "tests/fuzz/SignedStorebag.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view envelope(reinterpret_cast<const char*>(data), size);
  const auto storebag =
      corvid::storebagFromEnvelope(envelope, corvid::fuzz::publicKeyOfSignedStorebag());
  if (storebag && *storebag != corvid::fuzz::signedStorebag()) std::abort();
  return 0;
}
