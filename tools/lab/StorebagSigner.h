// The key of a lab, which signs its storebags.
#pragma once

#include <string>
#include <string_view>

#include "base/Value.h"
#include "tools/signing/SigningKey.h"

namespace corvid::lab {

// A key of 2048 bits. Threads and errors as in SigningKey.
class StorebagSigner : public signing::SigningKey {
 public:
  // Makes a key that is kept nowhere.
  StorebagSigner();
  // Uses the key in the PEM file `keyFile`; makes it where the file is missing.
  explicit StorebagSigner(const std::string& keyFile);

  // "signature" and "bag", both Base64: what an envelope needs at least.
  Dictionary envelopeFields(std::string_view bag) const;
  // The same as the property list that a client gets.
  std::string envelope(std::string_view bag) const;
};

}  // namespace corvid::lab
