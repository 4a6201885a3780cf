// Fetches one signed storebag by name and verifies it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Value.h"
#include "config/StorebagEnvelope.h"
#include "platform/HTTPClient.h"
#include "protocol/Reason.h"

namespace corvid {

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
  std::string envelope{};                     // that it came in, where storebags are kept
  std::optional<StorebagFault> fault{};       // why nothing came of it, or only a fallback
};

// Base URL of the storebag server, without a trailing slash; computed once per process, and anew
// when the deployment is another.
std::string storebagServerURL();

// What the deployment demands of signatures.
EnvelopeRules rulesOfDeployment();

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

}  // namespace corvid
