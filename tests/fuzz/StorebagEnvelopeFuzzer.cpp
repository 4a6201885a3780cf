// Envelopes that nobody has checked: none but those that carry the signed storebag may be opened.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "config/StorebagEnvelope.h"
#include "platform/data/Crypto.h"

namespace {

// The key that the corpus was signed with; its private half is gone.
constexpr std::string_view publicKey =
    "MIIBCgKCAQEA/vvCoplFOvDC7vyL5OHYbvDWrpupX7DHV5XGI8ovWlCajWAk1CoEwevtWhk6HHGvSZf2ygouGPsO"
    "6gEfR90aVPro93a+5FBc073tlKh7X3Z7crR5AoX8bCc78oC0yi2Uow5fNcrWt5g0+O7LbQl4gScLiiaUmztvA/FN"
    "BRd8eLeTRE9D6yhoJvTRUaSa1Ho70Dau8Khxl1IVgDftbdkqpozlrWy5kkYrDMqCS4YoPE3aIQnNuLlQbRDfzln8"
    "NxFYZNUMLDn9iB85dNfRSstQ0/Qo8AsfdZU0HJ5KifbnNnrLpaFGbv4URWy/Dhj96zISeCdDkcLq8bGVTfCq1tc0"
    "SQIDAQAB";

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
