#include "bench/devices/Tally.h"

#include <fmt/format.h>

#include <algorithm>

namespace corvid::bench {

namespace {

std::string listed(const std::map<int, std::size_t>& counts) {
  std::string text;
  for (const auto& [status, count] : counts) text += fmt::format("  {}: {}", status, count);
  return text.empty() ? "  none" : text;
}

Fate fateOf(int status) { return status / 100 == 2 ? Fate::acknowledged : Fate::refused; }

}  // namespace

void Tally::answered(const SentPost& post, bool isWrong, int status) {
  ++(isWrong ? wrongAnswers : answers)[status];
  posts.push_back(post);
  // What answers 5xx may have been stored all the same.
  posts.back().fate = status >= 500 ? Fate::unanswered : fateOf(status);
}

void Tally::cut(const SentPost& post) {
  ++cutOff;
  posts.push_back(post);
}

void Tally::failed(const SentPost& post, const std::string& why) {
  ++unanswered;
  ++failures[why];
  posts.push_back(post);
}

std::size_t Tally::acknowledged() const {
  return static_cast<std::size_t>(std::ranges::count(posts, Fate::acknowledged, &SentPost::fate));
}

float Tally::percentile(double percent) const {
  if (latencyMillis.empty()) return 0;
  std::vector<float> sorted = latencyMillis;
  const auto at = sorted.begin() + static_cast<std::ptrdiff_t>(
                                       static_cast<double>(sorted.size() - 1) * percent / 100);
  std::ranges::nth_element(sorted, at);
  return *at;
}

std::string Tally::text() const {
  const auto count = static_cast<double>(acknowledged());
  std::string text = fmt::format(
      "posts     {} sent, {} acknowledged: {:.0f} a second with {:.0f} events, in {:.1f} s\n"
      "latency   p50 {:.1f} ms, p99 {:.1f} ms\n"
      "answers {}  none: {}  cut off: {}\n",
      posts.size(), acknowledged(), count / seconds, count * eventsEach / seconds, seconds,
      percentile(50), percentile(99), listed(answers), unanswered, cutOff);
  if (!wrongAnswers.empty()) text += fmt::format("to wrong{}\n", listed(wrongAnswers));
  if (sentAgain > 0) text += fmt::format("again     {} sent a second time\n", sentAgain);
  for (const auto& [why, times] : failures)
    text += fmt::format("failed    {} times: {}\n", times, why);
  return text;
}

}  // namespace corvid::bench
