// Tests of storebags that nobody has checked: what can be read can be run, says the same each time,
// and makes a report that is a text in lines; what cannot be read is refused with a reason.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/data/JSON.h"
#include "tests/fuzz/Require.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/storebag/policy/PolicyTests.h"

namespace {

using corvid::Array;
using corvid::Dictionary;
using corvid::fuzz::require;

const Dictionary storebag{
    {"version", "1"},
    {"release",
     Dictionary{{"httpPost",
                 Dictionary{{"clients",
                             Array{Dictionary{
                                 {"client", "Player"},
                                 {"post_url", "https://c.example/"},
                                 {"locale_whitelist", Array{"DE"}},
                                 {"override_dnu", 1},
                                 {"sampling_threshold", 0.5},
                                 {"event_threshold", 1},
                                 {"filters",
                                  Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                                        Dictionary{{"key", "account"}, {"action", "sha256"}}}}}}}}},
                {"metrix", Dictionary()},
                {"dashboard", Dictionary{{"ip", "127.0.0.1"}, {"port", 4464}}}}}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t mostTests = 20;
  const auto json = corvid::parseJSON({reinterpret_cast<const char*>(data), size});
  if (!json) return 0;
  const auto value = corvid::tools::valueFromJSON(json.value());
  if (!value) return 0;
  std::vector<corvid::storebag::PolicyTest> tests;
  try {
    tests = corvid::storebag::policyTestsFrom(value.value());
  } catch (const corvid::tools::InputError& error) {
    require(!std::string_view(error.what()).empty());
    return 0;
  }
  if (tests.size() > mostTests) tests.resize(mostTests);
  std::vector<corvid::storebag::TestOutcome> outcomes;
  for (const auto& test : tests) {
    require(test.reason || !test.expectations.empty());
    outcomes.push_back({test.name, failuresOf(test, storebag)});
    require(outcomes.back().failures == failuresOf(test, storebag));
    for (const std::string& failure : outcomes.back().failures) require(!failure.empty());
  }
  const std::string report = corvid::storebag::junitReport("tests", outcomes);
  require(report.starts_with("<?xml ") && report.ends_with("</testsuites>\n"));
  for (const char c : report)
    require(c == '\n' || c == '\t' || static_cast<unsigned char>(c) >= ' ');
  return 0;
}
