#include "tools/lab/FaultPlan.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "base/Reading.h"
#include "tools/Arguments.h"

namespace corvid::lab {

namespace {

constexpr const char* keys[] = {"server",   "times",        "status",       "delay",
                                "redirect", "cutBodyAfter", "cutHeadAfter", "endless",
                                "silent",   "corrupt",      "truncate",     "body"};

}  // namespace

void FaultPlan::set(const std::string& server, Fault fault) {
  const MutexLock lock(_mutex);
  _faults.insert_or_assign(server, std::move(fault));
}

Fault FaultPlan::faultFrom(const Dictionary& request) const {
  const tools::Arguments in(request);
  for (const auto& [key, value] : request)
    if (std::ranges::find(keys, key) == std::end(keys))
      throw tools::InputError(
          fmt::format("there is no fault \"{}\"; there are {}", key, fmt::join(keys, ", ")));
  const std::string server = in.requiredText("server");
  if (!_servers.contains(server))
    throw tools::InputError(
        fmt::format("there is no server \"{}\"; there are {}", server, fmt::join(_servers, ", ")));

  constexpr std::int64_t most = 1'000'000'000;
  const auto count = [&](std::string_view key) -> std::optional<std::size_t> {
    const auto number = in.integer(key, 0, most);
    return number ? std::optional(static_cast<std::size_t>(*number)) : std::nullopt;
  };
  Fault fault;
  fault.times = static_cast<int>(in.integer("times", -1, most).value_or(1));
  if (const auto status = in.integer("status", 200, 599)) fault.status = static_cast<int>(*status);
  fault.delay = std::chrono::milliseconds(std::lround(in.seconds("delay").value_or(0) * 1000));
  fault.body = in.text("body");
  fault.redirect = in.text("redirect");
  fault.cutBodyAfter = count("cutBodyAfter");
  fault.cutHeadAfter = count("cutHeadAfter");
  fault.endless = in.boolean("endless").value_or(false);
  fault.silent = in.boolean("silent").value_or(false);
  fault.corrupt = in.boolean("corrupt").value_or(false);
  fault.truncate = in.boolean("truncate").value_or(false);
  return fault;
}

Result<bool> FaultPlan::set(const Dictionary& request) {
  try {
    Fault fault = faultFrom(request);
    set(*stringAt(request, "server"), std::move(fault));
    return true;
  } catch (const tools::InputError& error) {
    return Failure{error.what()};
  }
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
  if (fault.body) answer.body = *fault.body;
  if (fault.redirect) answer = Answer::redirect(*fault.redirect, fault.status.value_or(302));
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
