#include "tools/lab/FaultPlan.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "tools/Arguments.h"

namespace corvid::lab {

namespace {

constexpr const char* allKeys[] = {"server",   "times",        "status",       "delay",
                                   "redirect", "cutBodyAfter", "cutHeadAfter", "endless",
                                   "silent",   "corrupt",      "truncate",     "body"};

constexpr std::int64_t most = 1'000'000'000;

}  // namespace

// InputError where what is asked for cannot be meant.
Answer FaultPlan::spoiled(Answer answer, const Dictionary& fault) {
  const tools::Arguments in(fault);
  const auto count = [&](std::string_view key) -> std::optional<std::size_t> {
    const auto number = in.integer(key, 0, most);
    return number ? std::optional(static_cast<std::size_t>(*number)) : std::nullopt;
  };
  const auto isAsked = [&](std::string_view key) { return in.boolean(key).value_or(false); };

  const auto status = in.integer("status", 200, 599);
  if (status) answer = {.status = static_cast<int>(*status)};
  if (auto body = in.text("body")) answer.body = *std::move(body);
  if (auto location = in.text("redirect"))
    answer = Answer::redirect(*std::move(location), static_cast<int>(status.value_or(302)));
  answer.delay = std::chrono::milliseconds(std::lround(in.seconds("delay").value_or(0) * 1000));
  answer.cutBodyAfter = count("cutBodyAfter");
  answer.cutHeadAfter = count("cutHeadAfter");
  answer.endless = isAsked("endless");
  answer.silent = isAsked("silent");
  if (isAsked("corrupt") && !answer.body.empty()) answer.body[answer.body.size() / 2] ^= 1;
  if (isAsked("truncate")) answer.body.resize(answer.body.size() / 2);
  return answer;
}

std::span<const char* const> FaultPlan::keys() { return allKeys; }

void FaultPlan::set(const Dictionary& request) {
  for (const auto& [key, value] : request)
    if (std::ranges::find(allKeys, key) == std::end(allKeys))
      throw tools::InputError(
          fmt::format("there is no fault \"{}\"; there are {}", key, fmt::join(allKeys, ", ")));
  const tools::Arguments in(request);
  const std::string server = in.requiredText("server");
  if (!_servers.contains(server))
    throw tools::InputError(
        fmt::format("there is no server \"{}\"; there are {}", server, fmt::join(_servers, ", ")));
  const std::int64_t times = in.integer("times", -1, most).value_or(1);
  spoiled({}, request);  // which refuses here what no answer could be made of
  const MutexLock lock(_mutex);
  _faults.insert_or_assign(server, Fault{times, request});
}

std::optional<Dictionary> FaultPlan::take(const std::string& server) {
  const MutexLock lock(_mutex);
  const auto found = _faults.find(server);
  if (found == _faults.end() || found->second.times == 0) return std::nullopt;
  if (found->second.times > 0) --found->second.times;
  return found->second.request;
}

Dictionary FaultPlan::plans() {
  Dictionary plans;
  const MutexLock lock(_mutex);
  for (const auto& [server, fault] : _faults) {
    if (fault.times == 0) continue;
    Dictionary plan = fault.request;
    plan.set("times", fault.times);
    plans.set(server, std::move(plan));
  }
  return plans;
}

}  // namespace corvid::lab
