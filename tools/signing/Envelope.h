// What devices fetch: a storebag with signatures over it.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "tools/signing/SigningKey.h"

namespace corvid::signing {

// "signature" and "signatureSHA256" of the first of `keys`, of which there is one at least;
// "signatures", which has {"keyID", "signature", "signatureSHA256"} of each in the order given; and
// "bag". All but the IDs are Base64. The same keys and bytes make the same fields. Throws as
// SigningKey does.
Dictionary envelopeFields(std::span<const SigningKey> keys, std::string_view bag);

// The same as a property list in XML.
std::string envelope(std::span<const SigningKey> keys, std::string_view bag);

}  // namespace corvid::signing
