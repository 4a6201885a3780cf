#include "config/StorebagKeys.h"

#include <algorithm>
#include <array>
#include <iterator>

#include "protocol/Keys.h"

namespace corvid {

namespace {

using enum StorebagType;
using Place = StorebagPlace;

constexpr StorebagKey keys[] = {
    {.place = Place::storebag,
     .name = "version",
     .type = text,
     .effect = "goes into the end message and into what is told of the storebag",
     .without = "a client's call for its configuration goes unanswered",
     .isRequired = true},
    {.place = Place::storebag,
     .name = "refresh_cycle",
     .type = integer,
     .effect = "seconds for which it is fresh, at most 86400",
     .without = "the server's `max-age`, or a day",
     .least = std::numeric_limits<std::int64_t>::min(),
     .most = std::numeric_limits<std::int64_t>::max()},
    {.place = Place::storebag,
     .name = "serial",
     .type = integer,
     .effect = "may not go down from one publication to the next where the deployment has "
               "`RefuseOlderStorebags`",
     .without = "0",
     .least = 0,
     .most = std::numeric_limits<std::int64_t>::max()},
    {.place = Place::storebag,
     .name = "development",
     .type = dictionary,
     .effect = "the section of development devices",
     .without = "they report nothing",
     .content = Place::section},
    {.place = Place::storebag,
     .name = "halcyon_internal",
     .type = dictionary,
     .effect = "the section of internal builds",
     .without = "they report nothing",
     .content = Place::section},
    {.place = Place::storebag,
     .name = "seed",
     .type = dictionary,
     .effect = "the section of seed devices",
     .without = "they use `release`",
     .content = Place::section},
    {.place = Place::storebag,
     .name = "release",
     .type = dictionary,
     .effect = "the section of all other devices",
     .without = "they report nothing",
     .content = Place::section},

    {.place = Place::section,
     .name = kCorvidBackendHTTPPost,
     .type = dictionary,
     .effect = "posts events to HTTPS servers",
     .without = "no such backend",
     .content = Place::httpPost},
    {.place = Place::section,
     .name = kCorvidBackendHTTPPost2,
     .type = dictionary,
     .effect = "a second one of the same kind",
     .without = "no such backend",
     .content = Place::httpPost},
    {.place = Place::section,
     .name = kCorvidBackendDashboard,
     .type = dictionary,
     .effect = "uploads log data",
     .without = "no such backend",
     .content = Place::dashboard},
    {.place = Place::section,
     .name = kCorvidBackendUploadServer,
     .type = dictionary,
     .effect = "uploads files",
     .without = "no such backend",
     .content = Place::uploadServer},
    {.place = Place::section,
     .name = kCorvidBackendMetrix,
     .type = dictionary,
     .effect = "hands the events of client types 7, 11 and 13 to the device's diagnostics service",
     .without = "no such backend",
     .content = Place::metrix},
    {.place = Place::section,
     .name = kCorvidBackendWattbook,
     .type = dictionary,
     .effect = "writes events to the device's power log",
     .without = "no such backend",
     .content = Place::wattbook},

    {.place = Place::httpPost,
     .name = "display_url",
     .type = text,
     .effect = "the address that is shown to people",
     .without = "none"},
    {.place = Place::httpPost,
     .name = "clients",
     .type = dictionaries,
     .effect = "entries; the first that matches the session decides",
     .without = "the backend is not made",
     .isRequired = true,
     .content = Place::client},

    {.place = Place::client,
     .name = "client",
     .type = text,
     .effect = "comma-separated client names, whole, any case, no blanks trimmed",
     .without = "every client"},
    {.place = Place::client,
     .name = "service",
     .type = text,
     .effect = "comma-separated fragments of the service name, any case",
     .without = "every service"},
    {.place = Place::client,
     .name = "expedite",
     .type = integer,
     .effect = "not 0: events go at once; 0: they are batched",
     .without = "as the client asked"},
    {.place = Place::client,
     .name = "post_url",
     .type = address,
     .effect = "address of batches",
     .without = "unchanged"},
    {.place = Place::client,
     .name = "realtime_post_url",
     .type = address,
     .effect = "address of realtime events",
     .without = "as the batch address"},
    {.place = Place::client,
     .name = "hierarchy",
     .type = integer,
     .effect = "level of the session in its chain",
     .without = "0"},
    {.place = Place::client,
     .name = "override_dnu",
     .type = integer,
     .effect = "1 lets the client report without the user's consent",
     .without = "consent needed"},
    {.place = Place::client,
     .name = "locale_whitelist",
     .type = texts,
     .effect = "fragments of country codes that may report; a device that has no country passes "
               "every list that is not empty",
     .without = "nothing reports"},
    {.place = Place::client,
     .name = "device_whitelist",
     .type = texts,
     .effect = "fragments of product families that may report",
     .without = "all"},
    {.place = Place::client,
     .name = "device_blacklist",
     .type = texts,
     .effect = "fragments of hardware types that may not",
     .without = "none"},
    {.place = Place::client,
     .name = "filters",
     .type = dictionaries,
     .effect = "which record keys leave, and how; the first filter that fits a key decides",
     .without = "nothing reports",
     .content = Place::filter},
    {.place = Place::client,
     .name = "sampling_threshold",
     .type = threshold,
     .effect = "the share of sessions that report; below 0 none",
     .without = "nothing reports"},
    {.place = Place::client,
     .name = "per_country_sampling_thresholds",
     .type = dictionaries,
     .effect = "other thresholds for some countries; the first item that lists the country decides",
     .without = "no change",
     .content = Place::countryThreshold},
    {.place = Place::client,
     .name = "override_sampling",
     .type = threshold,
     .effect = "sessions beyond the threshold and within this are held, those beyond both disabled",
     .without = "all beyond the threshold are held"},
    {.place = Place::client,
     .name = "event_threshold",
     .type = integer,
     .effect = "events of one method held before a flush is forced",
     .without = "0"},
    {.place = Place::client,
     .name = "extras_on_internal",
     .type = integer,
     .effect = "not 0: internal builds send the device identifier",
     .without = "0"},
    {.place = Place::client,
     .name = "custom_clientId",
     .type = anything,
     .effect = "its presence asks for an identifier per client",
     .without = "standard ones"},

    {.place = Place::filter,
     .name = "key",
     .type = text,
     .effect = "the record key, any case",
     .without = "the filter matches nothing"},
    {.place = Place::filter,
     .name = "action",
     .type = text,
     .effect = "`remove` takes the key away, `sha256` replaces its value by the digest, `keep` "
               "leaves it",
     .without = "`keep`"},
    {.place = Place::filter,
     .name = "method",
     .type = integer,
     .effect = "only in records of this category; below 0 in all",
     .without = "all"},
    {.place = Place::filter,
     .name = "status",
     .type = integer,
     .effect = "only in records of this type; below 0 in all",
     .without = "all"},

    {.place = Place::countryThreshold,
     .name = "country",
     .type = texts,
     .effect = "country codes, whole, upper case",
     .without = "the item matches nothing"},
    {.place = Place::countryThreshold,
     .name = "threshold",
     .type = threshold,
     .effect = "takes the place of `sampling_threshold` there",
     .without = "nothing reports there"},

    {.place = Place::dashboard,
     .name = "ip",
     .type = ipAddress,
     .effect = "where the dashboard server is",
     .without = "the backend is not made",
     .isRequired = true},
    {.place = Place::dashboard,
     .name = "port",
     .type = integer,
     .effect = "its UDP port",
     .without = "the backend is not made",
     .isRequired = true,
     .least = 1,
     .most = 65535},
    {.place = Place::dashboard,
     .name = "reliable",
     .type = integer,
     .effect = "packets are acknowledged and sent again; milliseconds between two looks",
     .without = "packets are sent once",
     .least = 1,
     .most = std::int64_t{365} * 24 * 3600 * 1000},
    {.place = Place::dashboard,
     .name = "post_url",
     .type = address,
     .effect = "address of log data",
     .without = "log data is refused"},
    {.place = Place::dashboard,
     .name = "display_url",
     .type = text,
     .effect = "the address that is shown to people where no other backend has one",
     .without = "none"},

    {.place = Place::uploadServer,
     .name = "post_url",
     .type = address,
     .effect = "address of files, to which a query is added",
     .without = "the backend is not made",
     .isRequired = true},
    {.place = Place::uploadServer,
     .name = "display_url",
     .type = text,
     .effect = "kept with the backend, shown nowhere",
     .without = "none"},

    {.place = Place::metrix,
     .name = "active",
     .type = anything,
     .effect = "none: that the profile is there makes the backend",
     .without = "the same"},
};

static_assert(std::ranges::is_sorted(keys, {}, &StorebagKey::place));

struct Surroundings {
  Place place;
  std::string_view path;
};

constexpr std::array<Surroundings, storebagPlaceCount> places{{
    {Place::storebag, ""},
    {Place::section, "ENVIRONMENT"},
    {Place::httpPost, "ENVIRONMENT.httpPost"},
    {Place::client, "ENVIRONMENT.httpPost.clients[]"},
    {Place::filter, "ENVIRONMENT.httpPost.clients[].filters[]"},
    {Place::countryThreshold, "ENVIRONMENT.httpPost.clients[].per_country_sampling_thresholds[]"},
    {Place::dashboard, "ENVIRONMENT.dashboard"},
    {Place::uploadServer, "ENVIRONMENT.uploadServer"},
    {Place::metrix, "ENVIRONMENT.metrix"},
    {Place::wattbook, "ENVIRONMENT.wattbook"},
}};
static_assert(std::ranges::is_sorted(places, {}, &Surroundings::place));

}  // namespace

std::string_view textOf(StorebagType type) {
  switch (type) {
    case text: return "a text";
    case address: return "an https address";
    case ipAddress: return "an IPv4 address";
    case integer: return "an integer";
    case threshold: return "a number";
    case texts: return "an array of texts";
    case dictionary: return "a dictionary";
    case dictionaries: return "an array of dictionaries";
    case anything: return "anything";
  }
  return {};
}

std::span<const StorebagKey> storebagKeys() { return keys; }

std::span<const StorebagKey> storebagKeysAt(StorebagPlace place) {
  const auto isBefore = [](const StorebagKey& key, StorebagPlace at) { return key.place < at; };
  const auto first = std::lower_bound(std::begin(keys), std::end(keys), place, isBefore);
  const auto isHere = [place](const StorebagKey& key) { return key.place == place; };
  return {first, std::find_if_not(first, std::end(keys), isHere)};
}

const StorebagKey* storebagKey(StorebagPlace place, std::string_view name) {
  const auto all = storebagKeysAt(place);
  const auto found = std::ranges::find(all, name, &StorebagKey::name);
  return found == all.end() ? nullptr : &*found;
}

std::string_view pathOf(StorebagPlace place) {
  return places[static_cast<std::size_t>(place)].path;
}

std::string pathOf(const StorebagKey& key) {
  std::string path(pathOf(key.place));
  if (!path.empty()) path += '.';
  return path.append(key.name);
}

}  // namespace corvid
