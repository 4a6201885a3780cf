// Envelopes that nobody has checked: none but those that carry the signed storebag may be opened.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "config/StorebagFetch.h"
#include "platform/data/Crypto.h"

namespace {

// The key that the corpus was signed with; its private half is gone.
constexpr std::string_view publicKey =
    "MIIBCgKCAQEAlSm0nhZLkyOz7JYDB2AYSHIdaFZePYZU15evq4OQMl7yyRq6UH3i0FpvX8LViYiGqpuaz2DfHgN/"
    "mp9OxNSyi16jQ/NhhaLHmA9RJx4CFbm/7W1qODMJcw0BLD/T3DIoP/pMd6kZjp+v8g1zUW/0wEdoMJTrr4F8FcNt"
    "x7LOLamnuW7DZyZ5z8oVTUdvXD9SxCuThhmcCWNcsdmi1ecxyDMGZgFdq9EHDcqgpYOe8PWDzVP9lRBBZ++vQVEE"
    "eii+S/dBs9AVCM2JrcGjv747Z1Vb+haW0iVUTY9t9ksxCUO6HdQm9x4zCgW/qE8iYprC5HKFAMRXZrPPqlzsIPjX"
    "KwIDAQAB";

const corvid::Dictionary& signedStorebag() {
  using corvid::Dictionary;
  static const Dictionary storebag{
      {"release", Dictionary{{"httpPost", Dictionary{{"batchSize", 10}, {"samplingRate", 0.5}}}}},
      {"version", "7.1"},
      {"refresh_cycle", 600},
  };
  return storebag;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::string key = *corvid::base64DecodeIgnoringUnknownCharacters(publicKey);
  const std::string_view envelope(reinterpret_cast<const char*>(data), size);
  const auto storebag = corvid::storebagFromEnvelope(envelope, key);
  if (storebag && *storebag != signedStorebag()) std::abort();
  return 0;
}
