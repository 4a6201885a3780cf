#include "tests/e2e/ClientProcess.h"

#include <algorithm>
#include <utility>

#include "platform/data/JSON.h"
#include "tests/support/Waiting.h"

namespace corvid {

using std::chrono::steady_clock;

bool ClientProcess::readLine(steady_clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now());
  const std::optional<std::string> text =
      _process.readLine(std::max(left, std::chrono::milliseconds(0)));
  if (!text) return false;
  const auto line = parseJSON(*text);
  const Dictionary printed =
      line && line.value().dictionary() ? *line.value().dictionary() : Dictionary();
  (printed.contains("event") ? _events : _outcomes).push_back(printed);
  return true;
}

bool ClientProcess::send(const Dictionary& line) {
  return _process.write(writeJSON(line).value() + "\n");
}

Dictionary ClientProcess::call(const Dictionary& line) {
  if (!send(line)) return {};
  const auto deadline = steady_clock::now() + patience;
  while (_outcomes.empty())
    if (!readLine(deadline)) return {};
  Dictionary outcome = std::move(_outcomes.front());
  _outcomes.erase(_outcomes.begin());
  return outcome;
}

const std::vector<Dictionary>& ClientProcess::events() {
  while (readLine(steady_clock::now())) continue;
  return _events;
}

bool ClientProcess::awaitEvent(const Condition& condition) {
  const auto deadline = steady_clock::now() + patience;
  std::size_t looked = 0;
  do {
    for (; looked < _events.size(); ++looked)
      if (condition(_events[looked])) return true;
  } while (readLine(deadline));
  return false;
}

std::optional<int> ClientProcess::end() {
  const std::optional<int> status = _process.finish();
  events();
  return status;
}

}  // namespace corvid
