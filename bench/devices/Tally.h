// What became of a load's posts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace corvid::bench {

enum class Fate : char {
  acknowledged = 'a',  // its events must be stored, once
  refused = 'r',       // they must not be
  unanswered = 'u',    // they may be, and then once
};

// The events of a post.
struct SentPost {
  std::size_t device = 0;
  std::uint64_t first = 0;
  Fate fate = Fate::unanswered;
};

struct Tally {
  std::string run;  // as DevicePosts::newRun has it
  int eventsEach = 0;
  std::vector<SentPost> posts;
  std::map<int, std::size_t> answers;       // to sound posts, by status
  std::map<int, std::size_t> wrongAnswers;  // to posts with a wrong body
  std::size_t cutOff = 0;                   // by the device
  std::size_t unanswered = 0;               // for another reason
  std::size_t sentAgain = 0;
  std::map<std::string, std::size_t> failures;  // why they were not answered
  std::vector<float> latencyMillis;             // from a sound post's first byte to its 200
  double seconds = 0;

  // An answer to a post, other than those that were sent again.
  void answered(const SentPost& post, bool isWrong, int status);
  void cut(const SentPost& post);
  void failed(const SentPost& post, const std::string& why);

  std::size_t acknowledged() const;
  // The latency that so many of a hundred posts stayed below; 0 where there is none.
  float percentile(double percent) const;
  // Lines for people.
  std::string text() const;
};

}  // namespace corvid::bench
