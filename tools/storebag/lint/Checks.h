// The checks of a lint. Each adds to the report what it finds at or below `path`, in the storebag's
// order; what is missing or of a wrong type is checkKeys' to report, and nothing to the others.
#pragma once

#include <string>

#include "base/Value.h"
#include "config/StorebagKeys.h"
#include "tools/storebag/lint/CountryCodes.h"
#include "tools/storebag/lint/Report.h"

namespace corvid::storebag {

// Every key and value of a dictionary and of those in it, against the table of keys.
void checkKeys(const Dictionary& dictionary, StorebagPlace place, const std::string& path,
               Report& report);

// The settings of a storebag, its sections, and what they name.
void checkStorebag(const Dictionary& storebag, Report& report);

// The entries of a profile of httpPost: "clients".
void checkEntries(const Array& entries, const std::string& path, PassingCountries& countries,
                  Report& report);

// The filters of an entry.
void checkFilters(const Array& filters, const std::string& path, Report& report);

// The lists of an entry whose items are sought in what a device says of itself.
void checkLists(const Dictionary& entry, const std::string& path, PassingCountries& countries,
                Report& report);

// The thresholds of an entry for some countries.
void checkCountryThresholds(const Dictionary& entry, const std::string& path,
                            PassingCountries& countries, Report& report);

}  // namespace corvid::storebag
