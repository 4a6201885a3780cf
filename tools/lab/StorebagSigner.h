// Signs storebags as a configuration server does.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/Value.h"

struct evp_pkey_st;  // OpenSSL's

namespace corvid::lab {

// An RSA key pair of 2048 bits.
//
// Threads   constant after construction; any thread.
// Errors    std::runtime_error where the key cannot be made, read or written.
class StorebagSigner {
 public:
  // Makes a key that is kept nowhere.
  StorebagSigner();
  // Uses the key in the PEM file `keyFile`; makes it where the file is missing.
  explicit StorebagSigner(const std::string& keyFile);

  // The public half as a DER SubjectPublicKeyInfo, for publicKey.der.
  std::string publicKeyDER() const;
  // RSA PKCS#1 v1.5 over the SHA-1 digest of `bytes`.
  std::string signature(std::string_view bytes) const;
  // "signature" and "bag", both Base64.
  Dictionary envelopeFields(std::string_view bag) const;
  // The same as the property list that a client gets.
  std::string envelope(std::string_view bag) const;

 private:
  std::shared_ptr<evp_pkey_st> _key;
};

}  // namespace corvid::lab
