// Tests of a storebag as its authors write them: facts, an event, and what they expect.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid::storebag {

// What one backend of the session shall do. Without `wanted` there shall be no such backend;
// otherwise it holds any of state, reason, entry, postURL, realtimePostURL, eventThreshold,
// samplingThreshold and batch, and of the event outcome, address and record.
struct Expectation {
  std::string backend;
  std::optional<Dictionary> wanted{};
};

struct PolicyTest {
  std::string name;
  std::int32_t clientType = 0;
  Facts facts{};
  std::optional<SentEvent> event{};
  std::optional<std::string> reason{};  // why the session shall have no backends
  std::vector<Expectation> expectations{};
};

// Reads `[{"name","clientType","facts","event","reason","expect":{BACKEND:{...}}}]`. A
// tools::InputError says which test asks for something that cannot be meant: an unknown key or
// word, a value of a wrong type, nothing that is expected.
std::vector<PolicyTest> policyTestsFrom(const Value& json);

// What is otherwise, a line each; none where the test passes. As explain in Verdict.h.
std::vector<std::string> failuresOf(const PolicyTest& test, const Dictionary& storebag);

struct TestOutcome {
  std::string name;
  std::vector<std::string> failures{};
};
// As JUnit's XML, which build servers read.
std::string junitReport(const std::string& suite, const std::vector<TestOutcome>& outcomes);

}  // namespace corvid::storebag
