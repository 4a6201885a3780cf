#include "tools/lab/StorebagSigner.h"

#include <filesystem>

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid::lab {

using signing::SigningKey;

namespace {

SigningKey keptIn(const std::string& keyFile) {
  if (std::filesystem::exists(keyFile)) return SigningKey::open(keyFile);
  const SigningKey made = SigningKey::make(RSAPublicKey::leastBits);
  made.writePrivateKey(keyFile);
  return made;
}

}  // namespace

StorebagSigner::StorebagSigner() : SigningKey(make(RSAPublicKey::leastBits)) {}

StorebagSigner::StorebagSigner(const std::string& keyFile) : SigningKey(keptIn(keyFile)) {}

Dictionary StorebagSigner::envelopeFields(std::string_view bag) const {
  return {{"signature", base64Encode(signature(bag))}, {"bag", base64Encode(bag)}};
}

std::string StorebagSigner::envelope(std::string_view bag) const {
  return writeXMLPropertyList(envelopeFields(bag));
}

}  // namespace corvid::lab
