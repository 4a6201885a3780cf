#include "tools/lab/FaultPlan.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <iterator>

#include "tools/Arguments.h"

namespace corvid::lab {

namespace {

constexpr const char* keys[] = {"server",   "times",        "status",       "delay",
                                "redirect", "cutBodyAfter", "cutHeadAfter", "endless",
                                "silent",   "corrupt",      "truncate",     "body"};

constexpr std::int64_t most = 1'000'000'000;

// The answer as the fault that `in` asks for makes it. InputError where that cannot be meant.
Answer spoiled(Answer answer, const tools::Arguments& in) {
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

}  // namespace

void FaultPlan::set(const Dictionary& request) {
  for (const auto& [key, value] : request)
    if (std::ranges::find(keys, key) == std::end(keys))
      throw tools::InputError(
          fmt::format("there is no fault \"{}\"; there are {}", key, fmt::join(keys, ", ")));
  const tools::Arguments in(request);
  const std::string server = in.requiredText("server");
  if (!_servers.contains(server))
    throw tools::InputError(
        fmt::format("there is no server \"{}\"; there are {}", server, fmt::join(_servers, ", ")));
  const std::int64_t times = in.integer("times", -1, most).value_or(1);
  spoiled({}, in);  // which refuses here what no answer could be made of
  const MutexLock lock(_mutex);
  _faults.insert_or_assign(server, Fault{times, request});
}

Answer FaultPlan::apply(const std::string& server, Answer answer) {
  Dictionary request;
  {
    const MutexLock lock(_mutex);
    const auto found = _faults.find(server);
    if (found == _faults.end() || found->second.times == 0) return answer;
    if (found->second.times > 0) --found->second.times;
    request = found->second.request;
  }
  return spoiled(std::move(answer), tools::Arguments(request));
}

}  // namespace corvid::lab
