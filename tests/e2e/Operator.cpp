#include "tests/e2e/Operator.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"

namespace corvid {

ToolResult Operator::ctl(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"--root", _watched});
  return runTool(CORVIDCTL_PROGRAM, std::move(arguments));
}

Dictionary Operator::objectIn(std::string_view json) {
  Result<Value> value = parseJSON(json);
  if (!value || value.value().dictionary() == nullptr) {
    ADD_FAILURE() << "no object: " << json;
    return {};
  }
  return *value.value().dictionary();
}

Dictionary Operator::status() const {
  const ToolResult result = ctl({"status", "--json"});
  EXPECT_EQ(result.status, 0) << result.errors;
  return objectIn(result.output);
}

Dictionary Operator::ledger() const {
  const Dictionary status = this->status();
  const Dictionary* const ledger = dictionaryAt(status, "ledger");
  return ledger ? *ledger : Dictionary();
}

std::vector<Dictionary> Operator::sessions(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"sessions", "--json"});
  const ToolResult result = ctl(std::move(arguments));
  EXPECT_EQ(result.status, 0) << result.errors;
  std::vector<Dictionary> found;
  const Result<Value> value = parseJSON(result.output);
  if (value && value.value().array())
    for (const Value& each : *value.value().array()) found.push_back(*each.dictionary());
  return found;
}

std::vector<Dictionary> Operator::explain(std::vector<std::string> arguments) const {
  arguments.insert(arguments.begin(), {"explain", "--json"});
  std::vector<Dictionary> found;
  for (const std::string& line : linesOf(ctl(std::move(arguments)).output))
    found.push_back(objectIn(line));
  return found;
}

std::int64_t Operator::metric(std::string_view name) const {
  const std::string beginning = fmt::format("{} ", name);
  for (const std::string& line : linesOf(ctl({"metrics"}).output))
    if (line.starts_with(beginning)) return std::stoll(line.substr(beginning.size()));
  return -1;
}

const Dictionary& Operator::backendOf(const Dictionary& of, std::size_t at) {
  return *arrayAt(of, "backends")->at(at).dictionary();
}

bool Operator::adds(const Dictionary& ledger) {
  std::int64_t sum = 0;
  for (const char* const key : {"delivered", "held", "underWay"})
    sum += integerAt(ledger, key).value_or(0);
  for (const char* const key : {"refused", "failed", "dropped"})
    if (const Dictionary* const words = dictionaryAt(ledger, key))
      for (const auto& [word, count] : *words) sum += *count.integer();
  return sum == integerAt(ledger, "accepted");
}

}  // namespace corvid
