#include "tools/signing/Envelope.h"

#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid::signing {

Dictionary envelopeFields(std::span<const SigningKey> keys, std::string_view bag) {
  Array signatures;
  Dictionary fields;
  for (const SigningKey& key : keys) {
    const Value overSHA1 = base64Encode(key.signature(bag, Digest::sha1));
    const Value overSHA256 = base64Encode(key.signature(bag, Digest::sha256));
    if (fields.empty()) fields = {{"signature", overSHA1}, {"signatureSHA256", overSHA256}};
    signatures.push_back(
        Dictionary{{"keyID", key.id()}, {"signature", overSHA1}, {"signatureSHA256", overSHA256}});
  }
  fields.set("signatures", std::move(signatures));
  fields.set("bag", base64Encode(bag));
  return fields;
}

std::string envelope(std::span<const SigningKey> keys, std::string_view bag) {
  return writeXMLPropertyList(envelopeFields(keys, bag));
}

}  // namespace corvid::signing
