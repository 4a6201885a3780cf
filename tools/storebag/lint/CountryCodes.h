// The countries that devices can name, and which of them a list lets pass.
#pragma once

#include <bitset>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "backends/https/ListMatching.h"

namespace corvid::storebag {

inline constexpr std::size_t countryCodeCount = 253;
// Of each code, by its place among all.
using CountrySet = std::bitset<countryCodeCount>;

// In alphabetical order the codes that locales have: of regions three digits ("419" in "es_419"),
// of countries two letters, those of ISO 3166-1 and XK.
std::span<const std::string> countryCodes();
// Nothing for what is none, whole and in upper case.
std::optional<std::size_t> placeOfCountryCode(const std::string& code);
// All but the regions.
const CountrySet& everyCountry();

// What lists let pass, as a device matches them. Remembers each item that it was asked for, since
// the lists of a storebag have mostly the same ones.
class PassingCountries {
 public:
  CountrySet through(const MatchList& list);
  const CountrySet& through(std::string_view item);

 private:
  std::map<std::string, CountrySet, std::less<>> _byItem;
};

}  // namespace corvid::storebag
