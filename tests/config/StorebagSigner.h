// The other side of the storebag server: makes a key and signs storebags with it.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

class StorebagSigner {
 public:
  // Makes a new RSA key of 2048 bits.
  StorebagSigner();
  ~StorebagSigner();

  // The public key as SubjectPublicKeyInfo, what the key file holds.
  std::string publicKeyDER() const;
  // The same key as a bare RSAPublicKey.
  std::string barePublicKeyDER() const;
  // RSA PKCS#1 v1.5 over the SHA-1 digest.
  std::string signature(std::string_view bag) const;
  // The envelope's fields for a storebag of these bytes.
  Dictionary envelopeFields(std::string_view bag) const;
  // A whole envelope: XML outside, the storebag as XML inside.
  std::string envelope(const Dictionary& storebag) const;

 private:
  struct Key;
  std::unique_ptr<Key> _key;
};

// One for the whole test program; and one whose key nobody trusts.
const StorebagSigner& trustedSigner();
const StorebagSigner& strangeSigner();

}  // namespace corvid
