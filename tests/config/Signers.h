// The other side of the storebag server, for tests: one key that is trusted and one that is not.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/StorebagSigner.h"

namespace corvid {

// One; and one whose key nobody trusts.
inline const lab::StorebagSigner& trustedSigner() {
  static const lab::StorebagSigner signer(signingKeyFile("trusted"));
  return signer;
}
inline const lab::StorebagSigner& strangeSigner() {
  static const lab::StorebagSigner signer(signingKeyFile("strange"));
  return signer;
}

// What is said of an envelope without one.
inline constexpr std::string_view signatureMissing = "fetchStorebagWithName: Signature is missing";

// A whole envelope: XML outside, the storebag as XML inside.
inline std::string enveloped(const lab::StorebagSigner& signer, const Dictionary& storebag) {
  return signer.envelope(writeXMLPropertyList(storebag));
}

// The key, as a list; empty where it is none.
inline std::vector<RSAPublicKey> keysOf(std::string_view der) {
  std::vector<RSAPublicKey> keys;
  if (auto key = RSAPublicKey::fromDER(der)) keys.push_back(std::move(key).value());
  return keys;
}

// The key as a bare RSAPublicKey: without the 24 bytes that say what kind of key it is.
inline std::string barePublicKeyDER(const lab::StorebagSigner& signer) {
  return signer.publicKeyDER().substr(24);
}

}  // namespace corvid
