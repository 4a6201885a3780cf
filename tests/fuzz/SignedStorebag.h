// The one storebag that the corpora hold the signature of, and the key for it.
#pragma once

#include <string>
#include <string_view>

#include "base/Value.h"
#include "platform/data/Crypto.h"

namespace corvid::fuzz {

// Its private half is gone.
inline const std::string& publicKeyOfSignedStorebag() {
  static const std::string key = *base64DecodeIgnoringUnknownCharacters(
      "MIIBCgKCAQEAlSm0nhZLkyOz7JYDB2AYSHIdaFZePYZU15evq4OQMl7yyRq6UH3i0FpvX8LViYiGqpuaz2DfHgN/"
      "mp9OxNSyi16jQ/NhhaLHmA9RJx4CFbm/7W1qODMJcw0BLD/T3DIoP/pMd6kZjp+v8g1zUW/0wEdoMJTrr4F8FcNt"
      "x7LOLamnuW7DZyZ5z8oVTUdvXD9SxCuThhmcCWNcsdmi1ecxyDMGZgFdq9EHDcqgpYOe8PWDzVP9lRBBZ++vQVEE"
      "eii+S/dBs9AVCM2JrcGjv747Z1Vb+haW0iVUTY9t9ksxCUO6HdQm9x4zCgW/qE8iYprC5HKFAMRXZrPPqlzsIPjX"
      "KwIDAQAB");
  return key;
}

inline const Dictionary& signedStorebag() {
  static const Dictionary storebag{
      {"release", Dictionary{{"httpPost", Dictionary{{"batchSize", 10}, {"samplingRate", 0.5}}}}},
      {"version", "7.1"},
      {"refresh_cycle", 600},
  };
  return storebag;
}

}  // namespace corvid::fuzz
