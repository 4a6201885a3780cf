#include "config/StorebagEnvelope.h"

#include <algorithm>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "protocol/LogReason.h"

namespace corvid {

namespace {

// One key's signatures, decoded.
struct Signatures {
  std::optional<std::string> overSHA1{};
  std::optional<std::string> overSHA256{};
};

const Dictionary* dictionaryIn(const Result<Value>& parsed) {
  return parsed ? parsed.value().dictionary() : nullptr;
}

std::optional<std::string> decodedAt(const Dictionary& fields, std::string_view key) {
  const std::string* const text = stringAt(fields, key);
  return text ? base64DecodeIgnoringUnknownCharacters(*text) : std::nullopt;
}

// The envelope's own first.
std::vector<Signatures> signaturesIn(const Dictionary& fields) {
  std::vector<Signatures> all;
  const auto take = [&](const Dictionary& from) {
    Signatures signatures{decodedAt(from, "signature"), decodedAt(from, "signatureSHA256")};
    if (signatures.overSHA1) all.push_back(std::move(signatures));
  };
  take(fields);
  if (const Array* const more = arrayAt(fields, "signatures"))
    for (const Value& each : *more)
      if (const Dictionary* const one = each.dictionary(); one && all.size() < mostSignatures)
        take(*one);
  return all;
}

// The fingerprint of the key that does.
std::optional<std::uint64_t> verifyStorebagSignature(std::span<const RSAPublicKey> keys,
                                                     std::string_view bag,
                                                     std::span<const Signatures> signatures,
                                                     const EnvelopeRules& rules) {
  const SHA1Digest digest = sha1(bag);
  for (const RSAPublicKey& key : keys)
    for (const Signatures& each : signatures) {
      if (!key.verifies(digest, *each.overSHA1)) continue;
      if (!rules.requiresSHA256 || (each.overSHA256 && key.verifies(sha256(bag), *each.overSHA256)))
        return key.fingerprint();
    }
  return std::nullopt;
}

OpenedEnvelope malformed(std::string_view lack) {
  return {.reason = Reason::storebagMalformed, .lack = lack};
}

OpenedEnvelope unverified(std::string_view lack) {
  return {.reason = Reason::storebagUnverified, .lack = lack};
}

OpenedEnvelope withoutSignature(const Result<Value>& parsed) {
  const Dictionary* const fields = dictionaryIn(parsed);
  OpenedEnvelope opened = !fields                   ? malformed("the body is no dictionary")
                          : fields->contains("bag") ? unverified("it has no signature")
                                                    : malformed("it lacks \"bag\"");
  if (!parsed) opened.parseError = parsed.failure().message;
  opened.lacksSignature = true;
  return opened;
}

}  // namespace

OpenedEnvelope openEnvelope(std::string_view envelope, std::span<const RSAPublicKey> keys,
                            const EnvelopeRules& rules) {
  const Result<Value> parsed = parsePropertyList(envelope);
  const Dictionary* const fields = dictionaryIn(parsed);
  if (!fields || !stringAt(*fields, "signature")) return withoutSignature(parsed);
  if (keys.empty()) return unverified("this device has no usable key");
  const std::vector<Signatures> signatures = signaturesIn(*fields);
  if (signatures.empty()) return unverified("its signature is no Base64");
  if (!stringAt(*fields, "bag")) return malformed("it lacks \"bag\"");
  const auto bag = decodedAt(*fields, "bag");
  if (!bag) return malformed("its \"bag\" is no Base64");

  const auto key = verifyStorebagSignature(keys, *bag, signatures, rules);
  if (!key) {
    OpenedEnvelope opened =
        unverified(rules.requiresSHA256 && verifyStorebagSignature(keys, *bag, signatures, {})
                       ? "no SHA-256 signature beside the one that a key of this device verifies"
                       : "no key of this device verifies its signature");
    for (const RSAPublicKey& each : keys) opened.refusingKeys.push_back(each.fingerprint());
    return opened;
  }
  const Result<Value> storebag = parsePropertyList(*bag);
  const Dictionary* const content = dictionaryIn(storebag);
  if (!content) return malformed("its \"bag\" is no dictionary");
  return {.storebag = *content, .key = key};
}

void logRefusal(const OpenedEnvelope& opened) {
  const auto why = loggingReason(opened.reason);
  if (opened.parseError)
    logError("fetchStorebagWithName: propertyListWithData error {}", *opened.parseError);
  if (opened.lacksSignature) logError("fetchStorebagWithName: Signature is missing");
  for (const std::uint64_t key : opened.refusingKeys)
    logError("fetchStorebagWithName: Signature can not be verified, {:#018x}", key);
}

}  // namespace corvid
