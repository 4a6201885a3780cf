#include "config/StorebagEnvelope.h"

#include <string>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

const Dictionary* dictionaryIn(const Result<Value>& parsed) {
  return parsed ? parsed.value().dictionary() : nullptr;
}

bool verifyStorebagSignature(const RSAPublicKey& key, std::string_view bag,
                             std::string_view signature) {
  return key.verifies(sha1(bag), signature);
}

}  // namespace

std::optional<Dictionary> storebagFromEnvelope(std::string_view envelope,
                                               std::string_view publicKeyDER) {
  const Result<Value> parsed = parsePropertyList(envelope);
  if (!parsed)
    logError("fetchStorebagWithName: propertyListWithData error {}", parsed.failure().message);

  const Dictionary* fields = dictionaryIn(parsed);
  const std::string* signatureText = fields ? stringAt(*fields, "signature") : nullptr;
  if (signatureText == nullptr) {
    logError("fetchStorebagWithName: Signature is missing");
    return std::nullopt;
  }
  const std::optional<RSAPublicKey> key = RSAPublicKey::fromDER(publicKeyDER);
  if (!key) return std::nullopt;
  const auto signature = base64DecodeIgnoringUnknownCharacters(*signatureText);
  if (!signature) return std::nullopt;
  const std::string* bagText = stringAt(*fields, "bag");
  if (bagText == nullptr) return std::nullopt;
  const auto bag = base64DecodeIgnoringUnknownCharacters(*bagText);
  if (!bag) return std::nullopt;

  if (!verifyStorebagSignature(*key, *bag, *signature)) {
    logError("fetchStorebagWithName: Signature can not be verified, {}", key->address());
    return std::nullopt;
  }
  const Result<Value> storebag = parsePropertyList(*bag);
  const Dictionary* content = dictionaryIn(storebag);
  return content ? std::optional(*content) : std::nullopt;
}

}  // namespace corvid
