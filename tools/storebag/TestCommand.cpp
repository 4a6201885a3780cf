#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/LocalFileSystem.h"
#include "tools/Arguments.h"
#include "tools/storebag/PolicyCommands.h"
#include "tools/storebag/Source.h"
#include "tools/storebag/policy/PolicyTests.h"

namespace corvid::storebag {

namespace {

std::vector<PolicyTest> testsIn(const std::string& file) {
  try {
    return policyTestsFrom(valueOfFile(file));
  } catch (const tools::InputError& error) {
    const std::string what = error.what();
    throw tools::InputError(what.starts_with(file) ? what : file + ": " + what);
  }
}

void print(const std::vector<TestOutcome>& outcomes) {
  for (const auto& [name, failures] : outcomes) {
    fmt::print("{} {}\n", failures.empty() ? "ok    " : "FAILED", name);
    for (const std::string& failure : failures) fmt::print("       {}\n", failure);
  }
}

void printJSON(const std::vector<TestOutcome>& outcomes, std::size_t passed) {
  Array tests;
  for (const auto& [name, failures] : outcomes)
    tests.push_back(Dictionary{{"name", name},
                               {"passed", failures.empty()},
                               {"failures", Array(failures.begin(), failures.end())}});
  const auto text = writeJSON({{"tests", std::move(tests)},
                               {"passed", static_cast<std::int64_t>(passed)},
                               {"failed", static_cast<std::int64_t>(outcomes.size() - passed)}});
  if (!text) throw CommandError("a failure is no text that JSON can hold");
  fmt::print("{}\n", indentedJSON(*text));
}

void writeReport(const TestOptions& options, const std::vector<TestOutcome>& outcomes) {
  const auto present = readRegularFile(options.junitFile);
  if (present && keyFormOf(present.value()) == KeyForm::privateKey)
    throw CommandError(options.junitFile + " is a private key; name another file for the report");
  constexpr unsigned readableByAll = 0644;
  const std::string report = junitReport(options.tests, outcomes);
  if (const auto failure = replaceRegularFile(options.junitFile, report, readableByAll))
    throw CommandError(failure->message);
}

}  // namespace

int runTestCommand(const TestOptions& options) {
  const std::vector<PolicyTest> tests = testsIn(options.tests);
  const Content content = contentOfFile(options.source);
  std::vector<TestOutcome> outcomes;
  outcomes.reserve(tests.size());
  for (const PolicyTest& test : tests)
    outcomes.push_back({test.name, failuresOf(test, content.storebag)});
  const auto passed = static_cast<std::size_t>(std::ranges::count_if(
      outcomes, [](const TestOutcome& outcome) { return outcome.failures.empty(); }));
  if (!options.junitFile.empty()) writeReport(options, outcomes);
  if (options.asJSON) {
    printJSON(outcomes, passed);
  } else {
    print(outcomes);
    fmt::print("{} passed, {} failed\n", passed, outcomes.size() - passed);
  }
  return passed == outcomes.size() ? 0 : 1;
}

}  // namespace corvid::storebag
