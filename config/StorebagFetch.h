// Fetches one signed storebag by name and verifies it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "platform/HTTPClient.h"
#include "protocol/Reason.h"

namespace corvid {

// A longer public key file counts as none.
inline constexpr std::size_t publicKeyLimit = std::size_t{16} << 10;

// Why a fetch brought none.
struct StorebagFault {
  Reason reason = Reason::storebagUnreachable;
  std::string detail{};  // for people: a status, an error, what is missing
};

// What a fetch brought.
struct FetchedStorebag {
  std::optional<Dictionary> storebag{};
  std::int32_t maxAge = 0;                    // seconds; 0 where the exchange did not complete
  std::optional<std::string> version{};       // filled in where a section is chosen
  bool notModified = false;                   // what the caller has still holds
  std::optional<std::string> lastModified{};  // a new one from the server
  std::string url{};                          // that was asked
  std::optional<std::uint64_t> key{};         // fingerprint of the one that verified it
  std::optional<StorebagFault> fault{};       // why nothing came of it, or only a fallback
};

// Base URL of the storebag server, without a trailing slash; computed once per process, and anew
// when the deployment is another.
std::string storebagServerURL();

// Where the storebag of that name is; an absent one is "(null)". And the request for it, which asks
// for a newer one than `lastModified`, if there is one.
std::string storebagURL(const std::optional<std::string>& name);
HTTPRequest storebagRequest(std::string url, const std::optional<std::string>& lastModified);

// Fetches and verifies the whole storebag; where there is none, and it is not unchanged either, the
// reason has been logged. Blocks its caller until the exchange ends, at most 15 seconds.
//
// `lastModified` is the "Last-Modified" of the storebag that the caller has; without one the
// request is unconditional.
FetchedStorebag fetchStorebagWithName(const std::optional<std::string>& name,
                                      const std::optional<std::string>& lastModified);

// What holds where the server says nothing: one day, in seconds.
inline constexpr std::int32_t defaultMaxAge = 86400;

// The number after the first "max-age" of a "Cache-Control" header, in seconds; the header is cut
// at every "=" and every blank, and nothing else separates. 0 where no number stands there,
// `defaultMaxAge` where nothing stands there at all or the header is empty. Saturates at the ends
// of its type.
std::int32_t maxAgeFromCacheControl(std::string_view header);

struct OpenedEnvelope {
  std::optional<Dictionary> storebag{};
  std::optional<std::uint64_t> key{};         // fingerprint of the one that verified it
  Reason reason = Reason::storebagMalformed;  // where there is no storebag
  std::string_view lack{};                    // the same for people
};

// Opens an envelope: a property list whose "bag" (Base64 of a property list) must be the one that
// its "signature" (Base64, RSA PKCS#1 v1.5 over SHA-1) was made for with the private half of the
// key. `publicKeyDER` is the key file's content, empty without one.
//
// Nothing comes back unless the signature holds. Only a damaged envelope, a missing signature and
// one that does not fit are logged. Any thread.
OpenedEnvelope openEnvelope(std::string_view envelope, std::string_view publicKeyDER);
inline std::optional<Dictionary> storebagFromEnvelope(std::string_view envelope,
                                                      std::string_view publicKeyDER) {
  return openEnvelope(envelope, publicKeyDER).storebag;
}

}  // namespace corvid
