// Fetches one signed storebag by name and verifies it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Value.h"

namespace corvid {

// A longer public key file counts as none.
inline constexpr std::size_t publicKeyLimit = std::size_t{16} << 10;

// Base URL of the storebag server, without a trailing slash; computed once per process.
const std::string& storebagServerURL();

// Fetches, verifies and returns the storebag, or nothing (the reason has been logged). Blocks its
// caller until the exchange ends, at most 15 seconds.
//
// `maxAge` (seconds) is written only when the exchange completed. `notModified` is only ever set.
// `lastModified` carries the previous "Last-Modified" in and a new one out; nullptr leaves the
// request unconditional. An absent `name` goes into the URL as "(null)".
std::optional<Dictionary> fetchStorebagWithName(const std::optional<std::string>& name,
                                                std::int32_t& maxAge, bool& notModified,
                                                std::optional<std::string>* lastModified);

}  // namespace corvid
