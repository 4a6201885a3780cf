// The signed wrapper in which a storebag travels.
#pragma once

#include <optional>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// Opens an envelope: a property list whose "bag" (Base64 of a property list) must be the one that
// its "signature" (Base64, RSA PKCS#1 v1.5 over SHA-1) was made for with the private half of the
// key. `publicKeyDER` is the key file's content, empty without one.
//
// Nothing comes back unless the signature holds. Only a damaged envelope, a missing signature and
// one that does not fit are logged. Any thread.
std::optional<Dictionary> storebagFromEnvelope(std::string_view envelope,
                                               std::string_view publicKeyDER);

}  // namespace corvid
