// Envelopes that nobody has checked: none but those that carry the signed storebag may be opened.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "config/StorebagEnvelope.h"
#include "tests/fuzz/SignedStorebag.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view envelope(reinterpret_cast<const char*>(data), size);
  static const std::vector<corvid::RSAPublicKey> keys{
      corvid::RSAPublicKey::fromDER(corvid::fuzz::publicKeyOfSignedStorebag()).value()};
  const auto storebag = corvid::openEnvelope(envelope, keys).storebag;
  if (storebag && *storebag != corvid::fuzz::signedStorebag()) std::abort();
  return 0;
}
