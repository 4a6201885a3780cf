// The signed envelope that a storebag comes in.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/Value.h"
#include "platform/data/Crypto.h"
#include "protocol/Reason.h"

namespace corvid {

// More signatures than these are not looked at, so that no server costs a device much.
inline constexpr std::size_t mostSignatures = 16;

struct EnvelopeRules {
  bool requiresSHA256 = false;  // of the signature, one made over SHA-256 beside it
};

struct OpenedEnvelope {
  std::optional<Dictionary> storebag{};
  std::optional<std::uint64_t> key{};  // fingerprint of the one that verified it
  // Where there is no storebag, why:
  Reason reason = Reason::storebagMalformed;
  std::string_view lack{};                    // the same for people
  std::optional<std::string> parseError{};    // of the envelope
  bool lacksSignature = false;                // or has one that is no text
  std::vector<std::uint64_t> refusingKeys{};  // that verify none of its signatures
};

// Opens an envelope: a property list whose "bag" (Base64 of a property list) must be the one that
// its "signature" (Base64, RSA PKCS#1 v1.5 over SHA-1) was made for with the private half of one of
// the keys. Further signatures, by other keys, stand in "signatures", an array of dictionaries with
// "signature"; one that a key verifies is enough. Beside a signature "signatureSHA256" is one over
// SHA-256 by the same key, looked at only where it is required. Pure; any thread.
OpenedEnvelope openEnvelope(std::string_view envelope, std::span<const RSAPublicKey> keys,
                            const EnvelopeRules& rules = {});

// An error line each for what a fetch met: a damaged envelope, a missing signature, one that does
// not fit. Other lacks are told to nobody.
void logRefusal(const OpenedEnvelope& opened);

}  // namespace corvid
