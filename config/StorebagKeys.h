// Every key that a storebag may have: where it stands, what it holds, what it does. Whoever
// explains or checks storebags reads this table; those who read storebags at run time ask for the
// same names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace corvid {

// The dictionaries of a storebag.
enum class StorebagPlace {
  storebag,          // the storebag itself
  section,           // of an environment
  httpPost,          // the profile of httpPost and of httpPost2
  client,            // an item of "clients"
  filter,            // an item of "filters"
  countryThreshold,  // an item of "per_country_sampling_thresholds"
  dashboard,
  uploadServer,
  metrix,
  wattbook,
};
inline constexpr std::size_t storebagPlaceCount = 10;

enum class StorebagType {
  text,
  address,    // a text: the URL of an HTTPS server
  ipAddress,  // a text: an IPv4 address in dotted form
  integer,
  threshold,  // a number from -1 to 1
  texts,      // an array of texts
  dictionary,
  dictionaries,  // an array of dictionaries
  anything,
};
// For people, with its article: "an array of texts".
std::string_view textOf(StorebagType type);

struct StorebagKey {
  StorebagPlace place;
  std::string_view name;
  StorebagType type;
  std::string_view effect;   // in one line, without a full stop
  std::string_view without;  // what holds where the key is absent
  std::string_view since = "0.1.0";
  // Without it the daemon cannot use what the key belongs to.
  bool isRequired = false;
  // What stands in its dictionary, or in those of its array.
  std::optional<StorebagPlace> content = std::nullopt;
  // Of an integer, inclusive.
  std::int64_t least = std::numeric_limits<std::int32_t>::min();
  std::int64_t most = std::numeric_limits<std::int32_t>::max();
};

// All, place by place in the order of StorebagPlace.
std::span<const StorebagKey> storebagKeys();
// Those of one place, in the order in which people should read them.
std::span<const StorebagKey> storebagKeysAt(StorebagPlace place);
// Null where no such key is read there.
const StorebagKey* storebagKey(StorebagPlace place, std::string_view name);

// Where it stands: "ENVIRONMENT.httpPost.clients[]"; empty for the storebag itself.
std::string_view pathOf(StorebagPlace place);
// "ENVIRONMENT.httpPost.clients[].post_url".
std::string pathOf(const StorebagKey& key);

}  // namespace corvid
