#include "tools/lab/FaultPlan.h"

#include "platform/base/Reading.h"

namespace corvid::lab {

void FaultPlan::set(const std::string& server, Fault fault) {
  const MutexLock lock(_mutex);
  _faults.insert_or_assign(server, std::move(fault));
}

Result<bool> FaultPlan::set(const Dictionary& request) {
  const std::string* server = stringAt(request, "server");
  if (server == nullptr) return Failure{"a fault needs the name of its \"server\""};
  const auto count = [&](std::string_view key) -> std::optional<std::size_t> {
    const auto number = integerAt(request, key);
    return number ? std::optional(static_cast<std::size_t>(*number)) : std::nullopt;
  };
  Fault fault;
  fault.times = static_cast<int>(integerAt(request, "times").value_or(1));
  if (const auto status = integerAt(request, "status")) fault.status = static_cast<int>(*status);
  const double seconds = asNumber(request.find("delay")).value_or(0);
  fault.delay = std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  if (const std::string* location = stringAt(request, "redirect")) fault.redirect = *location;
  fault.cutBodyAfter = count("cutBodyAfter");
  fault.cutHeadAfter = count("cutHeadAfter");
  fault.endless = booleanAt(request, "endless");
  fault.silent = booleanAt(request, "silent");
  fault.corrupt = booleanAt(request, "corrupt");
  fault.truncate = booleanAt(request, "truncate");
  set(*server, std::move(fault));
  return true;
}

Answer FaultPlan::apply(const std::string& server, Answer answer) {
  Fault fault;
  {
    const MutexLock lock(_mutex);
    const auto found = _faults.find(server);
    if (found == _faults.end() || found->second.times == 0) return answer;
    if (found->second.times > 0) --found->second.times;
    fault = found->second;
  }
  if (fault.status) answer = {.status = *fault.status};
  if (fault.redirect) answer = Answer::redirect(*fault.redirect);
  answer.delay = fault.delay;
  answer.cutBodyAfter = fault.cutBodyAfter;
  answer.cutHeadAfter = fault.cutHeadAfter;
  answer.endless = fault.endless;
  answer.silent = fault.silent;
  if (fault.corrupt && !answer.body.empty()) answer.body[answer.body.size() / 2] ^= 1;
  if (fault.truncate) answer.body.resize(answer.body.size() / 2);
  return answer;
}

}  // namespace corvid::lab
